// Vector steps of the conversions of Utf.h, for long text on processors that have them. They take only valid text
// and leave the rest to who calls; what they take has the same result.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace Quellan::Platform {

// From this size on it pays to ask.
constexpr std::size_t LeastVectorText = 64;

// How much was taken from the beginning of a text, and what of the result was written.
struct VectorStep {
    std::size_t read;
    std::size_t written;
};

// Stop at what is no character, and some characters before the end: `out` needs room for the result of the whole
// text and no more.
VectorStep VectorToWide(std::string_view text, wchar_t* out) noexcept;
VectorStep VectorToUtf8(std::wstring_view text, char* out) noexcept;

// The number of wide characters of text that is valid; none if it is not, or if the processor cannot tell.
std::optional<std::size_t> VectorWideLength(std::string_view text) noexcept;

// Counts the UTF-8 bytes of units from the beginning of any text; some at the end are left.
VectorStep VectorUtf8Length(std::wstring_view text) noexcept;

}  // namespace Quellan::Platform
