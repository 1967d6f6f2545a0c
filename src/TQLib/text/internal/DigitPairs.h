#pragma once

#include <array>
#include <cstddef>

namespace Quellan::Corvel {

// "00" to "99": decimal digits are made two at a time.
template <class C>
constexpr auto DigitPairs = [] {
    std::array<C, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<C>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<C>('0' + i % 10);
    }
    return pairs;
}();

}  // namespace Quellan::Corvel
