// Last error and error codes on Linux.
#pragma once

#include "platform/Types.h"

TQLIB_API DWORD GetLastError() noexcept;
TQLIB_API void SetLastError(DWORD code) noexcept;
