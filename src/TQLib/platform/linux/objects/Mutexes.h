// Mutexes: locks that threads own and processes can share.
#pragma once

#include "TQLib/platform/linux/objects/Waits.h"

namespace Quellan::Platform {

inline constexpr DWORD MUTEX_MODIFY_STATE = 0x0001;
inline constexpr DWORD MUTEX_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x1;

// As Events.h says for all kinds. `initialOwner` counts only for a new mutex. An owned mutex whose last
// handle in its owner's process is closed counts as abandoned for other processes at once.
TQLIB_API HANDLE CreateMutexW(const SECURITY_ATTRIBUTES* attributes, BOOL initialOwner,
                              const wchar_t* name) noexcept;
TQLIB_API HANDLE OpenMutexW(DWORD access, BOOL inherit, const wchar_t* name) noexcept;

// Gives back one acquisition; with the last one the mutex is free. 288 (ERROR_NOT_OWNER) when the calling
// thread does not own it, 6 (ERROR_INVALID_HANDLE) for what is no mutex.
TQLIB_API BOOL ReleaseMutex(HANDLE mutex) noexcept;

}  // namespace Quellan::Platform
