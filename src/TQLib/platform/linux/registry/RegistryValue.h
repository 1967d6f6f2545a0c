// The file of one registry value (docs/formats/registry.md).
#pragma once

#include "TQLib/platform/linux/base/Base.h"

#include <string>
#include <string_view>

namespace Quellan::Platform {

struct RegistryValue {
    std::wstring name;  // as it was spelt
    DWORD type = 0;
    std::string data;  // as callers give and get it: texts in the platform's wide characters

    bool operator==(const RegistryValue&) const = default;
};

// More data than this no value has.
constexpr std::size_t MostValueBytes = std::size_t{16} << 20;

// What a file of a value may hold at most: a character has up to four bytes.
constexpr std::size_t MostValueFileBytes = MostValueBytes + (std::size_t{128} << 10);

// Both may throw std::bad_alloc. The name must be no longer than a value's can be, the data no larger.
std::string FormatRegistryValue(const RegistryValue& value);
// 1015 (ERROR_REGISTRY_CORRUPT), with nothing changed.
DWORD ParseRegistryValue(std::string_view file, RegistryValue& value);
// The same for one of several that stand one behind the other; the next begins `bytes` then.
DWORD TakeRegistryValue(std::string_view& bytes, RegistryValue& value);

}  // namespace Quellan::Platform
