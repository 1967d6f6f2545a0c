// Events: flags to wait for.
#pragma once

#include "platform/linux/Waits.h"

inline constexpr DWORD EVENT_MODIFY_STATE = 0x0002;
inline constexpr DWORD EVENT_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3;

// What the creating and opening calls of events, mutexes and semaphores have in common.
//
// Without a name (or with an empty one) an object is new and belongs to its process. A name is at most 260
// characters, its case matters, and all kinds share one name space. Names that begin with "Local\", and those
// without a prefix, are known to the processes of the user; names that begin with "Global\" to all processes
// of the machine, and every user may then do everything with the object. An object ends with its last handle,
// however its process ends.
//
// Creating what exists opens it, with success, as it is: the last error is then 183 (ERROR_ALREADY_EXISTS),
// otherwise 0. Null with 2 (ERROR_FILE_NOT_FOUND) when opening what does not exist, 3 (ERROR_PATH_NOT_FOUND)
// for another backslash in the name, 5 (ERROR_ACCESS_DENIED), 6 (ERROR_INVALID_HANDLE) when an object of
// another kind has the name, 8 (ERROR_NOT_ENOUGH_MEMORY), 87 (ERROR_INVALID_PARAMETER) when opening without
// a name, 123 (ERROR_INVALID_NAME) for a prefix alone, 161 (ERROR_BAD_PATHNAME) for a backslash at the
// beginning, 206 (ERROR_FILENAME_EXCED_RANGE), 1450 (ERROR_NO_SYSTEM_RESOURCES).
//
// A security descriptor is accepted and changes nothing. Handles are not inherited: 50 (ERROR_NOT_SUPPORTED)
// where that is asked for, by attributes or on opening.

TQLIB_API HANDLE CreateEventW(const SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState,
                              const wchar_t* name) noexcept;
TQLIB_API HANDLE OpenEventW(DWORD access, BOOL inherit, const wchar_t* name) noexcept;

// These need EVENT_MODIFY_STATE: 5 (ERROR_ACCESS_DENIED) otherwise, 6 (ERROR_INVALID_HANDLE) for what is no
// event. Setting an automatic event ends one wait, now or later; setting a manual one ends all waits until it
// is reset, and those that went on before are ended for good.
TQLIB_API BOOL SetEvent(HANDLE event) noexcept;
TQLIB_API BOOL ResetEvent(HANDLE event) noexcept;
