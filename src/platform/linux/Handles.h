// Handles of every kind.
#pragma once

#include "platform/linux/Base.h"

inline constexpr DWORD HANDLE_FLAG_INHERIT = 1;
inline constexpr DWORD HANDLE_FLAG_PROTECT_FROM_CLOSE = 2;

// Ends the handle's life at once and the object's with the last call that still uses it. 6
// (ERROR_INVALID_HANDLE) for a handle that is stale, was closed or never was one, or whose kind has a closing
// call of its own (FindClose, CloseEventLog, DeregisterEventSource). Pseudo handles are left alone, with
// success.
TQLIB_API BOOL CloseHandle(HANDLE handle) noexcept;
// No handle of this layer is inherited or protected: the flags of a valid handle are always 0.
TQLIB_API BOOL GetHandleInformation(HANDLE handle, DWORD* flags) noexcept;
