// The last error; the codes themselves are in ErrorCodes.h.
#pragma once

#include "TQLib/platform/linux/base/ErrorCodes.h"

namespace Quellan::Platform {

// The calling thread's last error: a new thread starts with 0. A call that succeeds leaves it as it was
// unless it says otherwise.
TQLIB_API DWORD GetLastError() noexcept;
TQLIB_API void SetLastError(DWORD code) noexcept;

}  // namespace Quellan::Platform
