// Characters that take more than one unit, in text of every width: UTF-8 where a unit has 8 bits, UTF-16 where it has
// 16, UTF-32 where it has 32.
#pragma once

#include <cstddef>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

constexpr char32_t ReplacementCode = 0xFFFD;

// Whether UTF-8, UTF-16 and UTF-32 can write it.
constexpr bool IsCodePoint(char32_t code) noexcept {
    return code < 0xD800 || (code >= 0xE000 && code <= 0x10FFFF);
}

struct CodePoint {
    char32_t code;      // U+FFFD for what is none
    std::size_t units;  // 1 for what is none
    bool isValid;
};

// The character of `text` that begins at `at`, which is below the text's length.
template <class C>
constexpr CodePoint CodePointAt(std::basic_string_view<C> text, std::size_t at) noexcept {
    constexpr CodePoint Wrong{ReplacementCode, 1, false};
    const auto unit = [&](std::size_t i) {
        return static_cast<char32_t>(static_cast<std::make_unsigned_t<C>>(text[i]));
    };
    const char32_t first = unit(at);
    if (first < 0x80) return {first, 1, true};
    if constexpr (sizeof(C) == 4) {
        return IsCodePoint(first) ? CodePoint{first, 1, true} : Wrong;
    } else if constexpr (sizeof(C) == 2) {
        if (IsCodePoint(first)) return {first, 1, true};
        if (first >= 0xDC00 || at + 1 == text.size()) return Wrong;
        const char32_t second = unit(at + 1);
        if (second < 0xDC00 || second > 0xDFFF) return Wrong;
        return {0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00), 2, true};
    } else {
        const std::size_t units = first < 0xC2   ? 0
                                  : first < 0xE0 ? 2
                                  : first < 0xF0 ? 3
                                  : first < 0xF5 ? 4
                                                 : 0;
        if (units == 0 || units > text.size() - at) return Wrong;
        char32_t code = first & (0x7Fu >> units);
        for (std::size_t i = 1; i < units; ++i) {
            if ((unit(at + i) & 0xC0) != 0x80) return Wrong;
            code = code << 6 | (unit(at + i) & 0x3F);
        }
        constexpr char32_t Least[] = {0, 0, 0x80, 0x800, 0x10000};
        return code >= Least[units] && IsCodePoint(code) ? CodePoint{code, units, true} : Wrong;
    }
}

// Gives the units of a code point to `put`, one after the other.
template <class C, class Put>
constexpr void PutCodePoint(char32_t code, Put put) {
    const auto give = [&](char32_t unit) { put(static_cast<C>(unit)); };
    if constexpr (sizeof(C) == 4) {
        give(code);
    } else if constexpr (sizeof(C) == 2) {
        if (code >= 0x10000) give(0xD800 + ((code - 0x10000) >> 10));
        give(code < 0x10000 ? code : 0xDC00 + (code & 0x3FF));
    } else if (code < 0x80) {
        give(code);
    } else {
        if (code < 0x800) {
            give(0xC0 | code >> 6);
        } else {
            if (code < 0x10000) {
                give(0xE0 | code >> 12);
            } else {
                give(0xF0 | code >> 18);
                give(0x80 | (code >> 12 & 0x3F));
            }
            give(0x80 | (code >> 6 & 0x3F));
        }
        give(0x80 | (code & 0x3F));
    }
}

}  // namespace Quellan::Corvel
