#include "TQLib/platform/Utf.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Quellan::Platform {
namespace {

// A code point in the platform's wide form.
std::wstring Wide(char32_t code) {
    if (sizeof(wchar_t) > 2 || code <= 0xFFFF) return {static_cast<wchar_t>(code)};
    return {static_cast<wchar_t>(0xD800 + ((code - 0x10000) >> 10)),
            static_cast<wchar_t>(0xDC00 + (code & 0x3FF))};
}

// Both conversions with guards behind the result, so that a converter that writes too much is found.
std::wstring ToWide(std::string_view text) {
    const std::size_t size = WideLength(text);
    std::vector<wchar_t> out(size + 32, L'#');
    EXPECT_EQ(Utf8ToWide(text, {out.data(), size}), size);
    EXPECT_EQ(std::count(out.begin() + static_cast<std::ptrdiff_t>(size), out.end(), L'#'), 32);
    return {out.data(), size};
}

std::string ToUtf8(std::wstring_view text) {
    const std::size_t size = Utf8Length(text);
    std::vector<char> out(size + 32, '#');
    EXPECT_EQ(WideToUtf8(text, {out.data(), size}), size);
    EXPECT_EQ(std::count(out.begin() + static_cast<std::ptrdiff_t>(size), out.end(), '#'), 32);
    return {out.data(), size};
}

TEST(Utf, ConvertsTheFirstAndTheLastCharacterOfEachLength) {
    const struct {
        char32_t code;
        std::string_view bytes;
    } cases[] = {{0x01, "\x01"},
                 {0x7F, "\x7F"},
                 {0x80, "\xC2\x80"},
                 {0x7FF, "\xDF\xBF"},
                 {0x800, "\xE0\xA0\x80"},
                 {0xD7FF, "\xED\x9F\xBF"},
                 {0xE000, "\xEE\x80\x80"},
                 {0xFFFF, "\xEF\xBF\xBF"},
                 {0x10000, "\xF0\x90\x80\x80"},
                 {0x10FFFF, "\xF4\x8F\xBF\xBF"}};
    for (const auto& [code, bytes] : cases) {
        EXPECT_EQ(ToWide(bytes), Wide(code)) << std::hex << static_cast<unsigned>(code);
        EXPECT_EQ(ToUtf8(Wide(code)), bytes) << std::hex << static_cast<unsigned>(code);
        EXPECT_TRUE(IsValidText(bytes) && IsValidText(Wide(code)));
    }
    EXPECT_EQ(ToWide(std::string_view("a\0b", 3)), std::wstring_view(L"a\0b", 3));
}

// One replacement for each longest beginning of a character, one for each byte that can begin none.
TEST(Utf, ReplacesInvalidBytesByTheirMaximalParts) {
    const struct {
        std::string_view bytes;
        std::size_t replacements;
    } cases[] = {{"\x80", 1},
                 {"\xC0\x80", 2},
                 {"\xC1\xBF", 2},
                 {"\xC3", 1},
                 {"\xE0\x9F\xBF", 3},
                 {"\xE1\x80", 1},
                 {"\xED\xA0\x80", 3},
                 {"\xF0\x8F\xBF\xBF", 4},
                 {"\xF1\x80\x80", 1},
                 {"\xF4\x90\x80\x80", 4},
                 {"\xF5\x80\x80\x80", 4},
                 {"\xFF\xFE", 2},
                 {"\xF1\x80\x80\xE1\x80\xC2", 3}};
    for (const auto& [bytes, replacements] : cases) {
        const std::string text = "a" + std::string(bytes) + "b";
        EXPECT_EQ(ToWide(text), L"a" + std::wstring(replacements, L'\xFFFD') + L"b")
            << testing::PrintToString(bytes);
        EXPECT_FALSE(IsValidText(text));
    }
    EXPECT_TRUE(IsValidText("\xEF\xBF\xBD"));
}

TEST(Utf, ReplacesWideUnitsThatAreNoCharacter) {
    const std::vector<std::wstring> invalid = {
        {wchar_t(0xD800)}, {wchar_t(0xDFFF)}, {wchar_t(0xDBFF), L'x'}, {wchar_t(0xDC00), L'x'}};
    for (const std::wstring& text : invalid) {
        EXPECT_EQ(ToUtf8(text), "\xEF\xBF\xBD" + ToUtf8(text.substr(1)));
        EXPECT_FALSE(IsValidText(text));
    }
    if constexpr (sizeof(wchar_t) > 2) {
        const std::wstring beyond = {wchar_t(0x110000), wchar_t(0x7FFFFFFF)};
        EXPECT_EQ(ToUtf8(beyond), "\xEF\xBF\xBD\xEF\xBF\xBD");
    }
}

// Text is converted in blocks where it is ASCII: another character at every place around the blocks' ends.
TEST(Utf, ConvertsOtherCharactersAtEveryPlaceOfLongText) {
    constexpr std::size_t Longest = 150;
    for (const char32_t code : {char32_t(0xE9), char32_t(0x65E5), char32_t(0x1F600)}) {
        const std::wstring wide = Wide(code);
        const std::string bytes = ToUtf8(wide);
        for (std::size_t before = 0; before <= Longest; ++before) {
            std::string text;
            for (std::size_t i = 0; i < Longest; ++i)
                text += static_cast<char>('!' + i % 90);
            const std::wstring expected = std::wstring(text.begin(), text.end()).insert(before, wide);
            text.insert(before, bytes);
            ASSERT_EQ(ToWide(text), expected) << before;
            ASSERT_EQ(ToUtf8(expected), text) << before;
        }
    }
}

}  // namespace
}  // namespace Quellan::Platform
