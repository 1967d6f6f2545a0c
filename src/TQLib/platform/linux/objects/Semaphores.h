// Semaphores: counters that waits take from.
#pragma once

#include "TQLib/platform/linux/objects/Waits.h"

namespace Quellan::Platform {

inline constexpr DWORD SEMAPHORE_MODIFY_STATE = 0x0002;
inline constexpr DWORD SEMAPHORE_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3;

// As Events.h says for all kinds. 87 (ERROR_INVALID_PARAMETER) unless 0 <= initialCount <= maximumCount and
// maximumCount > 0.
TQLIB_API HANDLE CreateSemaphoreW(const SECURITY_ATTRIBUTES* attributes, LONG initialCount, LONG maximumCount,
                                  const wchar_t* name) noexcept;
TQLIB_API HANDLE OpenSemaphoreW(DWORD access, BOOL inherit, const wchar_t* name) noexcept;

// Adds to the count and, unless it is null, tells what it was before. 298 (ERROR_TOO_MANY_POSTS), with
// nothing changed, where it would go over the maximum; 87 (ERROR_INVALID_PARAMETER) for a count below 1; 5
// (ERROR_ACCESS_DENIED) without SEMAPHORE_MODIFY_STATE; 6 (ERROR_INVALID_HANDLE) for what is no semaphore.
TQLIB_API BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG* previousCount) noexcept;

}  // namespace Quellan::Platform
