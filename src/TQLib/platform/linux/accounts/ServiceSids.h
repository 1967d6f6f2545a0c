// The identifiers of single services, S-1-5-80 and five numbers: the SHA-1 value of the service's name.
#pragma once

#include "TQLib/platform/linux/accounts/SidValue.h"

namespace Quellan::Platform {

// Of any name, without regard to its case. May throw std::bad_alloc.
SidValue SidOfService(std::wstring_view name);
// The name of the installed service that has the identifier; empty where there is none or the
// registry can't be read. May throw std::bad_alloc.
std::wstring FindInstalledService(const SidValue& sid);

}  // namespace Quellan::Platform
