#include "TQLib/platform/linux/base/Case.h"

#include "TQLib/platform/UnicodeData.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

constexpr char32_t LastAscii = 0x7F;
constexpr char32_t LastOfBasicPlane = 0xFFFF;
constexpr char32_t FirstAfterSurrogates = 0xE000;

// What is stored under a name must be found whatever system library there is, so none is asked, and tables of a
// later Unicode may change no character's capital. Only letters of the basic plane have a case, as on the platform,
// and none outside of ASCII becomes an ASCII one: a name that was checked does not become another by its spelling.
wchar_t Converted(char32_t (*convert)(char32_t), wchar_t character) noexcept {
    const auto code = static_cast<char32_t>(character);
    if (code > LastOfBasicPlane) return character;
    const char32_t other = convert(code);
    return other > LastAscii && other <= LastOfBasicPlane ? static_cast<wchar_t>(other) : character;
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
    return Converted(&SimpleUpper, character);
}

wchar_t ToLower(wchar_t character) noexcept {
    if (static_cast<char32_t>(character) <= LastAscii)
        return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a')
                                                      : character;
    return Converted(&SimpleLower, character);
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
