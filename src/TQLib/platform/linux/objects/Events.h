// Events: flags to wait for.
#pragma once

#include "TQLib/platform/linux/objects/Waits.h"

namespace Quellan::Platform {

inline constexpr DWORD EVENT_MODIFY_STATE = 0x0002;
inline constexpr DWORD EVENT_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3;

// What the creating and opening calls of events, mutexes and semaphores have in common.
//
// Without a name (or with an empty one) an object is new and belongs to its process. A name is at most 260
// characters, its case matters, and all kinds share one name space. Names that begin with "Local\", and those
// without a prefix, are known to the processes of the user; names that begin with "Global\" to all processes
// of the machine. An object is its user's alone; a security descriptor that lets the group or everybody wait
// for it or change it lets them do everything with it. An object ends with its last handle, however its
// process ends. Handles are not inherited by programs; the child of a fork has its own (docs/linux.md).
//
// Creating what exists opens it, with success, as it is: the last error is then 183 (ERROR_ALREADY_EXISTS),
// otherwise 0. Null with 2 (ERROR_FILE_NOT_FOUND) when opening what does not exist, 3 (ERROR_PATH_NOT_FOUND)
// for another backslash in the name, 5 (ERROR_ACCESS_DENIED) also where root's folder for "Global\" names is
// missing, 4 (ERROR_TOO_MANY_OPEN_FILES), as an object takes a descriptor, 6 (ERROR_INVALID_HANDLE) when an
// object of another kind has the name, 8 (ERROR_NOT_ENOUGH_MEMORY), 87 (ERROR_INVALID_PARAMETER) when opening
// without a name, 123 (ERROR_INVALID_NAME) for a prefix alone, 161 (ERROR_BAD_PATHNAME) for a backslash at
// the beginning, 170 (ERROR_BUSY) where somebody has kept the object locked for 5 s, 206
// (ERROR_FILENAME_EXCED_RANGE), 1450 (ERROR_NO_SYSTEM_RESOURCES), 50 (ERROR_NOT_SUPPORTED) where inheritance
// is asked for, by attributes or on opening, for access-control lists that mode bits cannot express, and for a
// mutex where the kernel does not tell of the end of its owners (docs/formats/named-objects.md).
//
// Waits for an object with a name, and calls that change it, fail with 170 (ERROR_BUSY) where another process
// has kept it locked for 2 s, and with 999 (ERROR_SWAPERROR) where somebody who may use it cut off its
// memory.

TQLIB_API HANDLE CreateEventW(const SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                              const wchar_t* name) noexcept;
TQLIB_API HANDLE OpenEventW(DWORD access, BOOL inherit, const wchar_t* name) noexcept;

// These need EVENT_MODIFY_STATE: 5 (ERROR_ACCESS_DENIED) otherwise, 6 (ERROR_INVALID_HANDLE) for what is no
// event. Setting an automatic event ends one wait, now or later; setting a manual one ends all waits until it
// is reset, and those that went on before are ended for good.
TQLIB_API BOOL SetEvent(HANDLE event) noexcept;
TQLIB_API BOOL ResetEvent(HANDLE event) noexcept;

}  // namespace Quellan::Platform
