// The process's environment, for the layer's own settings as well as for its callers.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Quellan::Platform {

// The variable's value. May throw std::bad_alloc.
std::optional<std::string> EnvironmentVariable(std::string_view name);

// The same, but never set in a process that runs with more rights than its caller: for names of files and
// folders.
std::optional<std::string> TrustedEnvironmentVariable(std::string_view name);

}  // namespace Quellan::Platform
