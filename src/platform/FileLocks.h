// Locks on ranges of a file's bytes, waited for up to a time.
#pragma once

#include "platform/Types.h"

namespace Quellan::Corvel::Platform {

// As LockFile, but waits up to `ms` milliseconds: 33 (ERROR_LOCK_VIOLATION) when the time is up. UnlockFile
// ends the lock. On Linux whoever waits sleeps until the lock is free; Windows has no such wait for handles
// without overlapped operations, and it is asked for again and again.
DWORD LockFileRange(HANDLE file, ULONGLONG offset, ULONGLONG size, DWORD ms) noexcept;

}  // namespace Quellan::Corvel::Platform
