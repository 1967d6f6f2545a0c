// The text of a security identifier.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Quellan::Platform {

// Puts the number in decimal at `at` and returns its end.
template <class C>
C* PutDecimal(C* at, std::uint32_t number) noexcept {
    static constexpr auto Pairs = [] {  // the two digits of each number below 100
        std::array<C[2], 100> pairs{};
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            pairs[i][0] = static_cast<C>('0' + i / 10);
            pairs[i][1] = static_cast<C>('0' + i % 10);
        }
        return pairs;
    }();
    constexpr std::uint32_t Powers[] = {0,       10,        100,        1'000,       10'000,
                                        100'000, 1'000'000, 10'000'000, 100'000'000, 1'000'000'000};
    const auto power =
        static_cast<std::size_t>(std::bit_width(number | 1)) * 1233 >> 12;  // log10, or one more
    C* const end = at + power + (number >= Powers[power] ? 1 : 0);
    C* to = end;
    for (; number >= 10; number /= 100) {
        to -= 2;
        std::memcpy(to, Pairs[number % 100], sizeof Pairs[0]);
    }
    if (to != at) *--to = static_cast<C>('0' + number);
    return end;
}

constexpr std::size_t MaxSidText = 4 + 14 + 15 * 11;

// Puts the published form S-1-... of an identifier at `text`, the authority in hexadecimal from 2^32 on. `text`
// must hold MaxSidText characters; returns their number. No terminator is added.
template <class C>
std::size_t FormatSid(const void* sid, C* text) noexcept {
    const BYTE* const bytes = static_cast<const BYTE*>(sid);
    C* at = text;
    for (const char c : {'S', '-', '1', '-'})
        *at++ = static_cast<C>(c);
    std::uint64_t authority = 0;
    for (std::size_t i = 2; i < 8; ++i)
        authority = authority << 8 | bytes[i];
    if (authority >> 32 != 0) {
        *at++ = '0';
        *at++ = 'x';
        for (int shift = 44; shift >= 0; shift -= 4)
            *at++ = static_cast<C>("0123456789abcdef"[authority >> shift & 0xF]);
    } else {
        at = PutDecimal(at, static_cast<std::uint32_t>(authority));
    }
    for (unsigned i = 0; i < bytes[1]; ++i) {
        std::uint32_t part;
        std::memcpy(&part, bytes + 8 + i * sizeof part, sizeof part);
        *at++ = '-';
        at = PutDecimal(at, part);
    }
    return static_cast<std::size_t>(at - text);
}

}  // namespace Quellan::Platform
