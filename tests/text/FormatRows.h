// The values that the rows of FormatRows.inc use, and a row's name.
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>

namespace Quellan::Corvel::Test {

// A number by its bits, for those that have no literal.
inline double Bits(std::uint64_t bits) {
    return std::bit_cast<double>(bits);
}

// A pointer with a given address.
inline const void* At(std::uint64_t address) {
    return std::bit_cast<const void*>(address);
}

// One recorded row: the format, the arguments as they are written, and what was printed.
struct FormatRow {
    std::string name;
    std::string printed;

    bool operator==(const FormatRow&) const = default;
};

// `format` and `printed` are ASCII.
template <class C>
FormatRow MakeFormatRow(std::basic_string_view<C> format, std::string_view arguments,
                        std::basic_string_view<C> printed) {
    const auto narrow = [](std::basic_string_view<C> text) {
        std::string result;
        for (const C c : text)
            result += static_cast<char>(c);
        return result;
    };
    const char* const kind = sizeof(C) == 1 ? "narrow " : "wide ";
    return {kind + narrow(format) + " <- " + std::string(arguments), narrow(printed)};
}

}  // namespace Quellan::Corvel::Test
