// What the library asks of open files beyond the platform's own calls.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// As LockFile, but waits up to `ms` milliseconds: 33 (ERROR_LOCK_VIOLATION) when the time is up. UnlockFile
// ends the lock. Neither platform has such a wait (Linux has one without an end, which only a signal cuts
// short): the lock is asked for again and again, on Linux the more often the longer it has been waited for,
// so that who came first is the likelier to get it.
DWORD LockFileRange(HANDLE file, ULONGLONG offset, ULONGLONG size, DWORD ms) noexcept;

// As ReadFile and WriteFile, at an offset and whatever the file's position, which may be anywhere afterwards:
// a position is shared with every process that has inherited the handle. Where the file ends before the
// offset nothing is read.
DWORD ReadFileAt(HANDLE file, ULONGLONG offset, void* buffer, DWORD size, DWORD& got) noexcept;
DWORD WriteFileAt(HANDLE file, ULONGLONG offset, const void* bytes, DWORD size, DWORD& written) noexcept;

// Makes the file end there.
DWORD SetFileSize(HANDLE file, ULONGLONG size) noexcept;

// The size of the open file, where `name`, a full one, leads to it, and otherwise 1006 (ERROR_FILE_INVALID):
// it may have been moved or deleted meanwhile. Windows does that only to files whose handles all share it,
// and isn't asked for others; Linux does it to any. What can't be found out counts as not done.
DWORD SizeOfFileAt(HANDLE file, const wchar_t* name, bool isDeletionShared, ULONGLONG& size) noexcept;

}  // namespace Quellan::Platform
