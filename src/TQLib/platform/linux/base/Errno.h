// The one translation of errno values into Windows codes.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// 31 (ERROR_GEN_FAILURE) for a value without an entry, 0 for 0.
DWORD CodeFromErrno(int error) noexcept;

// The same for a call on `path`: where nothing was found the code tells a missing file (2) from a missing
// folder on the way to it (3). Keeps errno.
DWORD CodeFromErrno(int error, const char* path) noexcept;

}  // namespace Quellan::Platform
