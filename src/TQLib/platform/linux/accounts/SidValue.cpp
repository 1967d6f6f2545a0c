#include "TQLib/platform/linux/accounts/SidValue.h"

#include "TQLib/platform/linux/accounts/SidText.h"

#include <limits>
#include <optional>

namespace Quellan::Platform {

namespace {

constexpr std::uint64_t MaxDecimalAuthority = std::numeric_limits<DWORD>::max();
constexpr int AuthorityDigits = 12;  // hexadecimal
constexpr int SubAuthorityDigits = 10;

std::optional<unsigned> DigitOf(wchar_t character, unsigned base) noexcept {
    if (character >= L'0' && character <= L'9') return static_cast<unsigned>(character - L'0');
    if (base == 16 && character >= L'a' && character <= L'f')
        return static_cast<unsigned>(character - L'a') + 10;
    if (base == 16 && character >= L'A' && character <= L'F')
        return static_cast<unsigned>(character - L'A') + 10;
    return std::nullopt;
}

// Takes the digits at the beginning of `text`, at least one and at most `most`, and no more of the same kind.
std::optional<std::uint64_t> TakeNumber(std::wstring_view& text, unsigned base, int most) noexcept {
    std::uint64_t value = 0;
    int count = 0;
    for (; !text.empty(); text.remove_prefix(1), ++count) {
        const auto digit = DigitOf(text.front(), base);
        if (!digit) break;
        if (count == most) return std::nullopt;
        value = value * base + *digit;
    }
    if (count == 0) return std::nullopt;
    return value;
}

bool TakePrefix(std::wstring_view& text, std::wstring_view prefix) noexcept {
    if (!text.starts_with(prefix)) return false;
    text.remove_prefix(prefix.size());
    return true;
}

std::optional<std::uint64_t> TakeAuthority(std::wstring_view& text) noexcept {
    if (TakePrefix(text, L"0x") || TakePrefix(text, L"0X")) return TakeNumber(text, 16, AuthorityDigits);
    const auto value = TakeNumber(text, 10, SubAuthorityDigits);
    return value && *value <= MaxDecimalAuthority ? value : std::nullopt;
}

}  // namespace

std::string SidText(const void* sid) {
    char text[MaxSidText];
    return {text, FormatSid(sid, text)};
}

bool ParseSid(std::wstring_view text, SidValue& sid) noexcept {
    if (!TakePrefix(text, L"S-1-") && !TakePrefix(text, L"s-1-")) return false;
    const auto authority = TakeAuthority(text);
    if (!authority) return false;
    SidValue result;
    for (int i = 0; i < 6; ++i)
        result.authority.Value[i] = static_cast<BYTE>(*authority >> (5 - i) * 8);
    while (!text.empty()) {
        if (result.count == SID_MAX_SUB_AUTHORITIES || !TakePrefix(text, L"-")) return false;
        const auto value = TakeNumber(text, 10, SubAuthorityDigits);
        if (!value || *value > std::numeric_limits<DWORD>::max()) return false;
        result.subAuthorities[result.count++] = static_cast<DWORD>(*value);
    }
    if (result.count == 0) return false;
    sid = result;
    return true;
}

}  // namespace Quellan::Platform
