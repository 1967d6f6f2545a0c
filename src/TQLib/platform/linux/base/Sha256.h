// SHA-256 (FIPS 180-4), for identifiers that must not tell what they were made from.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace Quellan::Platform {

// The hash value as eight numbers, most significant first.
std::array<std::uint32_t, 8> Sha256(std::string_view bytes) noexcept;

}  // namespace Quellan::Platform
