// The count that keeps a server process alive.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

// One count for the process, 0 at first. Each returns it after the call; at 0 a release changes nothing. The
// layer registers no classes, so that nothing else depends on it.
TQLIB_API ULONG CoAddRefServerProcess() noexcept;
TQLIB_API ULONG CoReleaseServerProcess() noexcept;

}  // namespace Quellan::Platform
