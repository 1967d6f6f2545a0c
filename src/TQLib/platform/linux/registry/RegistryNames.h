// Names of registry keys and values, which have no case, as names of files, which have one.
#pragma once

#include <string>
#include <string_view>

namespace Quellan::Platform {

enum class RegistryEntry : char { Key = 'k', Value = 'v' };

constexpr std::size_t MostKeyNameCharacters = 255;
constexpr std::size_t MostValueNameCharacters = 16'383;

// The same for every spelling of a name, and for no other name (docs/formats/registry.md). May throw
// std::bad_alloc.
std::string RegistryFileName(RegistryEntry kind, std::wstring_view name);

// Whether a file in a key's folder is an entry of that kind.
bool IsRegistryEntry(RegistryEntry kind, std::string_view fileName) noexcept;

}  // namespace Quellan::Platform
