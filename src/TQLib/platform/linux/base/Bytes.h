// Numbers out of bytes that nobody vouches for, least significant byte first.
#pragma once

#include "TQLib/platform/Types.h"

#include <optional>
#include <span>

namespace Quellan::Platform {

// The number of type `T` at `offset`; none when it does not lie wholly within `bytes`.
template <class T>
std::optional<T> ReadNumber(std::span<const std::byte> bytes, std::uint64_t offset) noexcept {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t i = sizeof(T); i-- > 0;)
        value = value << 8 | std::to_integer<std::uint64_t>(bytes[static_cast<std::size_t>(offset) + i]);
    return static_cast<T>(value);
}

// The `size` bytes at `offset`; none when they do not lie wholly within `bytes`.
inline std::optional<std::span<const std::byte>> Part(std::span<const std::byte> bytes, std::uint64_t offset,
                                                      std::uint64_t size) noexcept {
    if (offset > bytes.size() || bytes.size() - offset < size) return std::nullopt;
    return bytes.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(size));
}

}  // namespace Quellan::Platform
