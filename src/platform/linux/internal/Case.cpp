#include "platform/linux/internal/Case.h"

#include <algorithm>
#include <clocale>
#include <wctype.h>

namespace Quellan::Corvel::Platform {

namespace {

constexpr wchar_t LastAscii = 0x7F;
constexpr char32_t LastOfBasicPlane = 0xFFFF;
constexpr char32_t FirstAfterSurrogates = 0xE000;

// Never freed: other threads may convert until the process ends.
locale_t UnicodeLocale() noexcept {
    static const locale_t locale = [] {
        const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return unicode ? unicode : newlocale(LC_CTYPE_MASK, "C", nullptr);
    }();
    return locale;
}

// As on the platform a letter keeps its width in UTF-16, and none outside of ASCII becomes an ASCII one: a
// name that was checked does not become another by its spelling.
wchar_t Checked(wchar_t from, wint_t to) noexcept {
    const bool changesPlane = to > LastOfBasicPlane || static_cast<char32_t>(from) > LastOfBasicPlane;
    return changesPlane || to <= static_cast<wint_t>(LastAscii) ? from : static_cast<wchar_t>(to);
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
    return Checked(character, towupper_l(static_cast<wint_t>(character), UnicodeLocale()));
}

wchar_t ToLower(wchar_t character) noexcept {
    if (static_cast<char32_t>(character) <= LastAscii)
        return character >= L'A' && character <= L'Z' ? static_cast<wchar_t>(character - L'A' + L'a')
                                                      : character;
    return Checked(character, towlower_l(static_cast<wint_t>(character), UnicodeLocale()));
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

}  // namespace Quellan::Corvel::Platform
