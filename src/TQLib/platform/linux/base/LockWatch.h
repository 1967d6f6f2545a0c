// Proof, in test builds only, that nobody waits in the kernel while he holds a lock of the library, and that
// nobody is woken by one who holds an object: with TQ_FAULT_POINTS undefined nothing of this is compiled in.
#pragma once

#include "TQLib/platform/linux/base/CriticalSections.h"

namespace Quellan::Platform {

#if defined(TQ_FAULT_POINTS)

// The waits made so far, by all threads together, inside a critical section, other than those made with
// CRITICAL_SECTION_NO_DEBUG_INFO. A wait that finds its object signalled or gives no time counts too.
TQLIB_API unsigned long WaitsUnderLock() noexcept;
// From now on such a wait ends the process instead, so that a core or a debugger shows who made it.
TQLIB_API void AbortOnWaitUnderLock(bool abort) noexcept;

// The wake-ups of waiters made so far, by all threads together, while an object of theirs was held.
TQLIB_API unsigned long WakesUnderHold() noexcept;

void EnteredWatchedLock() noexcept;
void LeftWatchedLock() noexcept;
// For every call that may wait in the kernel for another thread.
void BeforeWait() noexcept;
void HeldObject() noexcept;
void LeftObject() noexcept;
void BeforeWake() noexcept;

#else

inline void EnteredWatchedLock() noexcept {}
inline void LeftWatchedLock() noexcept {}
inline void BeforeWait() noexcept {}
inline void HeldObject() noexcept {}
inline void LeftObject() noexcept {}
inline void BeforeWake() noexcept {}

#endif

}  // namespace Quellan::Platform
