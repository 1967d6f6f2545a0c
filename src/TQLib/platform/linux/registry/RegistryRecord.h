// A key of the registry that is written as a whole, for the service manager.
#pragma once

#include "TQLib/platform/linux/registry/Registry.h"
#include "TQLib/platform/linux/registry/RegistryValue.h"

#include <vector>

namespace Quellan::Platform {

// Makes a key with these values alone, in one step, and the keys above it where they are missing; what is there
// is deleted before. On the disk when it returns. Codes as of RegCreateKeyExW.
TQLIB_API DWORD PutRegistryKey(HKEY root, std::wstring_view path,
                               const std::vector<RegistryValue>& values) noexcept;

}  // namespace Quellan::Platform
