#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <array>
#include <iterator>

namespace Quellan::Corvel::Test {
namespace {

std::wstring Info(LCID locale, LCTYPE type) {
    std::array<wchar_t, 100> buffer{};
    const int size = GetLocaleInfoW(locale, type, buffer.data(), static_cast<int>(buffer.size()));
    return size > 0 ? std::wstring(buffer.data(), static_cast<std::size_t>(size) - 1) : L"?";
}

TEST(Locales, AreKnownByNumberAndName) {
    const struct {
        LCID id;
        const wchar_t* name;
        const wchar_t* language;
        const wchar_t* country;
    } cases[] = {{0x0409, L"en-US", L"English", L"United States"},
                 {0x0407, L"de-DE", L"German", L"Germany"},
                 {0x0C07, L"de-AT", L"German", L"Austria"},
                 {0x0411, L"ja-JP", L"Japanese", L"Japan"},
                 {0x0416, L"pt-BR", L"Portuguese", L"Brazil"},
                 {0x0C0A, L"es-ES", L"Spanish", L"Spain"},
                 {0x281A, L"sr-Cyrl-RS", L"Serbian (Cyrillic)", L"Serbia"},
                 {0x0804, L"zh-CN", L"Chinese (Simplified)", L"China"}};
    for (const auto& [id, name, language, country] : cases) {
        EXPECT_EQ(LocaleNameToLCID(name, 0), id);
        EXPECT_EQ(Info(id, LOCALE_SNAME), name);
        EXPECT_EQ(Info(id, LOCALE_SENGLANGUAGE), language);
        EXPECT_EQ(Info(id, LOCALE_SENGCOUNTRY), country);
        wchar_t found[85];
        EXPECT_GT(LCIDToLocaleName(id, found, 85, 0), 0);
        EXPECT_EQ(std::wstring_view(found), name);
    }
    EXPECT_EQ(Info(0x0C0A, LOCALE_ILANGUAGE), L"0c0a");
    EXPECT_EQ(Info(0x281A, LOCALE_SISO639LANGNAME), L"sr");
    EXPECT_EQ(Info(0x281A, LOCALE_SISO3166CTRYNAME), L"RS");
}

TEST(Locales, OfALanguageAloneAreThoseOfItsChiefCountry) {
    EXPECT_EQ(Info(0x0007, LOCALE_SNAME), L"de-DE");
    EXPECT_EQ(LocaleNameToLCID(L"pt", 0), 0x0416u);
    EXPECT_EQ(LocaleNameToLCID(L"ZH", 0), 0x0804u);
    EXPECT_EQ(Info(LOCALE_INVARIANT, LOCALE_SISO639LANGNAME), L"iv");
}

TEST(Locales, FollowTheRulesOfSizes) {
    wchar_t buffer[6];
    EXPECT_EQ(GetLocaleInfoW(0x0409, LOCALE_SNAME, nullptr, 0), 6);
    EXPECT_EQ(GetLocaleInfoW(0x0409, LOCALE_SNAME, buffer, 6), 6);
    EXPECT_EQ(CodeOf(GetLocaleInfoW(0x0409, LOCALE_SNAME, buffer, 5)), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(CodeOf(GetLocaleInfoW(0x3FFF, LOCALE_SNAME, buffer, 6)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(GetLocaleInfoW(0x0409, 0x00FFFFFF, buffer, 6)), DWORD{ERROR_INVALID_FLAGS});
    EXPECT_EQ(CodeOf(LocaleNameToLCID(L"zz-ZZ", 0)), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(CodePages, ConvertTextWithAndWithoutItsTerminator) {
    wchar_t wide[4] = {L'#', L'#', L'#', L'#'};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xC3\xA9", -1, nullptr, 0), 3);
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xC3\xA9", 3, wide, 4), 2);
    EXPECT_EQ(std::wstring_view(wide, 3), L"a\u00E9#");
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xC3\xA9", -1, wide, 3), 3);
    EXPECT_EQ(std::wstring_view(wide), L"a\u00E9");
    char bytes[5];
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, L"a\u00E9", -1, bytes, 5, nullptr, nullptr), 4);
    EXPECT_EQ(std::string_view(bytes), "a\xC3\xA9");
}

TEST(CodePages, RefuseInvalidTextOnRequestAlone) {
    wchar_t wide[4];
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "a\xFF", 2, wide, 4), 2);
    EXPECT_EQ(wide[1], L'\xFFFD');
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "a\xFF", 2, wide, 4)),
              DWORD{ERROR_NO_UNICODE_TRANSLATION});
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "\xEF\xBF\xBD", 3, wide, 4), 1);
    const wchar_t lone[] = {wchar_t(0xD800), 0};
    char bytes[8];
    EXPECT_EQ(CodeOf(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, lone, 1, bytes, 8, nullptr, nullptr)),
              DWORD{ERROR_NO_UNICODE_TRANSLATION});
}

TEST(CodePages, FollowTheRulesOfArguments) {
    wchar_t wide[4];
    const DWORD invalid = ERROR_INVALID_PARAMETER;
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, wide, 2)), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, 0, nullptr, 3, wide, 4)), invalid);
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, 0, "abc", 0, wide, 4)), invalid);
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, nullptr, 4)), invalid);
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, 0, "abc", 3, wide, -1)), invalid);
    EXPECT_EQ(CodeOf(MultiByteToWideChar(12345, 0, "abc", 3, wide, 4)), invalid);
    if (OnWine()) return;  // takes any flag and default character
    EXPECT_EQ(CodeOf(MultiByteToWideChar(CP_UTF8, MB_PRECOMPOSED, "abc", 3, wide, 4)),
              DWORD{ERROR_INVALID_FLAGS});
    char bytes[4];
    EXPECT_EQ(CodeOf(WideCharToMultiByte(CP_UTF8, 0, L"abc", 3, bytes, 4, "?", nullptr)), invalid);
}

TEST(Comparison, IsThatOfUtf16Units) {
    const auto compare = [](const wchar_t* left, const wchar_t* right, bool ignoreCase) {
        return CompareStringOrdinal(left, -1, right, -1, ignoreCase);
    };
    EXPECT_EQ(compare(L"abc", L"ABC", false), CSTR_GREATER_THAN);
    EXPECT_EQ(compare(L"abc\u00E4\u0436", L"ABC\u00C4\u0416", true), CSTR_EQUAL);
    EXPECT_EQ(compare(L"ab", L"abc", true), CSTR_LESS_THAN);
    EXPECT_EQ(compare(L"_", L"a", true), CSTR_GREATER_THAN);  // upper case counts, and '_' stands after it
    EXPECT_EQ(compare(L"\U0001F600", L"\uFF21", false), CSTR_LESS_THAN);
    EXPECT_EQ(compare(L"\u0131", L"I", true),
              CSTR_GREATER_THAN);  // no letter outside of ASCII becomes one inside
    EXPECT_EQ(CompareStringOrdinal(L"abX", 2, L"abY", 2, FALSE), CSTR_EQUAL);
    EXPECT_EQ(CodeOf(CompareStringOrdinal(nullptr, -1, L"a", -1, FALSE)), DWORD{ERROR_INVALID_PARAMETER});
    if (OnWine()) return;  // takes any negative size for -1
    EXPECT_EQ(CodeOf(CompareStringOrdinal(L"a", -2, L"a", -1, FALSE)), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(Case, ChangesInPlaceUpToTheSize) {
    wchar_t text[] = L"a\u00E4\u0436\u00DF!z";
    EXPECT_EQ(CharUpperBuffW(text, 5), 5u);
    EXPECT_EQ(std::wstring_view(text), L"A\u00C4\u0416\u00DF!z");
    EXPECT_EQ(CharLowerBuffW(text, 3), 3u);
    EXPECT_EQ(std::wstring_view(text), L"a\u00E4\u0436\u00DF!z");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
