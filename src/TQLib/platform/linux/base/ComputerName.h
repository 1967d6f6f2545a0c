// The machine's name as the platform gives it.
#pragma once

#include <string>

namespace Quellan::Platform {

// Without the domain, in upper case, at most 15 characters. May throw std::bad_alloc.
std::wstring ComputerName();

}  // namespace Quellan::Platform
