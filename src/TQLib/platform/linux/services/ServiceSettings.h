// What a level of ChangeServiceConfig2W says of a service.
#pragma once

#include "TQLib/platform/linux/services/ServiceMessages.h"

namespace Quellan::Platform {

// Reads `info`, which must be the structure of the level. The codes of ChangeServiceConfig2W, as far as they can be
// told from the structure. May throw std::bad_alloc.
DWORD ReadServiceSetting(DWORD level, const void* info, ServiceChange& change);

}  // namespace Quellan::Platform
