// Access tokens of threads.
#pragma once

#include "platform/linux/Base.h"

inline constexpr DWORD TOKEN_QUERY = 0x0008;

// The layer cannot impersonate, so no thread has a token of its own: FALSE with 1008 (ERROR_NO_TOKEN), 6
// (ERROR_INVALID_HANDLE) for what is no thread's handle, 87 (ERROR_INVALID_PARAMETER) without `token`.
TQLIB_API BOOL OpenThreadToken(HANDLE thread, DWORD access, BOOL openAsSelf, HANDLE* token) noexcept;
