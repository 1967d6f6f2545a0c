// Critical sections: the fast lock of one process.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

// Belongs to the functions below; it must not be copied or moved. A thread may enter it again and again. A
// free one is entered and left without the kernel. There is no order among those who wait: a running thread
// may overtake a sleeping one, so that the lock never stands still until a sleeper has woken up. A thread
// that ends inside keeps everybody else out. In the child of a fork the thread that forked is still inside
// what it was inside of; sections with any other thread inside are free there, whatever they guard is as it
// was.
struct CRITICAL_SECTION {
    DWORD LockState;  // who is inside, and whether somebody may sleep for it; 0 when free
    LONG RecursionCount;
    DWORD SpinCount;
    BOOL Watched;  // test builds report waits made inside
};

inline constexpr DWORD CRITICAL_SECTION_NO_DEBUG_INFO = 0x01000000;

TQLIB_API void InitializeCriticalSection(CRITICAL_SECTION* section) noexcept;
// `spinCount`: how often a thread looks again before it sleeps. 87 (ERROR_INVALID_PARAMETER) for flags other
// than CRITICAL_SECTION_NO_DEBUG_INFO, with which the section's owners may wait inside it.
TQLIB_API BOOL InitializeCriticalSectionEx(CRITICAL_SECTION* section, DWORD spinCount, DWORD flags) noexcept;
// Nobody may be inside.
TQLIB_API void DeleteCriticalSection(CRITICAL_SECTION* section) noexcept;

TQLIB_API void EnterCriticalSection(CRITICAL_SECTION* section) noexcept;
// FALSE when another thread is inside.
TQLIB_API BOOL TryEnterCriticalSection(CRITICAL_SECTION* section) noexcept;
// Once for each time it was entered, by the thread that is inside.
TQLIB_API void LeaveCriticalSection(CRITICAL_SECTION* section) noexcept;

}  // namespace Quellan::Platform
