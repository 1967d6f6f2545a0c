#include "TQLib/platform/linux/base/Case.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <span>

namespace Quellan::Platform {

namespace {

constexpr wchar_t LastAscii = 0x7F;
constexpr char32_t LastOfBasicPlane = 0xFFFF;
constexpr char32_t FirstAfterSurrogates = 0xE000;

// Letters from `first` to `last`, each `step`-th of them, and how far away the other case is.
struct CaseRange {
    char32_t first;
    char32_t last;
    char32_t step;
    std::int32_t distance;
};

// What is stored under a name must be found whatever system library there is, so none is asked. Only letters
// of the basic plane have a case, as on the platform, and none outside of ASCII becomes an ASCII one: a name
// that was checked does not become another by its spelling.
#include "TQLib/platform/linux/base/CaseTable.inc"

wchar_t Converted(std::span<const CaseRange> ranges, wchar_t character) noexcept {
    const auto code = static_cast<char32_t>(character);
    const auto after = std::ranges::upper_bound(ranges, code, {}, &CaseRange::first);
    if (after == ranges.begin()) return character;
    const CaseRange& range = *std::prev(after);
    const bool isIn = code <= range.last && (code - range.first) % range.step == 0;
    return isIn ? static_cast<wchar_t>(static_cast<std::int32_t>(code) + range.distance) : character;
}

// Characters beyond the basic plane are written with surrogates, which come before the plane's last
// characters.
char32_t Utf16Order(wchar_t character) noexcept {
    const auto code = static_cast<char32_t>(character);
    return code >= FirstAfterSurrogates && code <= LastOfBasicPlane ? code + 0x110000 : code;
}

}  // namespace

wchar_t ToUpper(wchar_t character) noexcept {
    if (static_cast<char32_t>(character) <= LastAscii)
        return character >= L'a' && character <= L'z' ? static_cast<wchar_t>(character - L'a' + L'A')
                                                      : character;
    return Converted(ToUpperRanges, character);
}

wchar_t ToLower(wchar_t character) noexcept {
    if (static_cast<char32_t>(character) <= LastAscii)
        return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a')
                                                      : character;
    return Converted(ToLowerRanges, character);
}

int CompareOrdinal(std::wstring_view left, std::wstring_view right, bool ignoreCase) noexcept {
    const std::size_t common = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (left[i] == right[i]) continue;
        const char32_t a = Utf16Order(ignoreCase ? ToUpper(left[i]) : left[i]);
        const char32_t b = Utf16Order(ignoreCase ? ToUpper(right[i]) : right[i]);
        if (a != b) return a < b ? -1 : 1;
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

}  // namespace Quellan::Platform
