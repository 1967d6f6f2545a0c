#include "TQLib/platform/Utf.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
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

// In units, of the character at a place.
std::size_t SizeAt(std::wstring_view text, std::size_t i) {
    const bool isPair = sizeof(wchar_t) == 2 && (text[i] & 0xFC00) == 0xD800 && i + 1 < text.size() &&
                        (text[i + 1] & 0xFC00) == 0xDC00;
    return isPair ? 2 : 1;
}

// The same character by character.
std::wstring Plain(std::string_view text) {
    std::wstring result;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i++]);
        int more = lead < 0x80   ? 0
                   : lead < 0xC2 ? -1
                   : lead < 0xE0 ? 1
                   : lead < 0xF0 ? 2
                   : lead < 0xF5 ? 3
                                 : -1;
        char32_t code = more <= 0 ? lead : lead & (0x3Fu >> more);
        unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        for (; more > 0 && i < text.size(); --more, ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            if (byte < lowest || byte > highest) break;
            code = code << 6 | (byte & 0x3F);
            lowest = 0x80;
            highest = 0xBF;
        }
        result += Wide(more == 0 ? code : 0xFFFD);
    }
    return result;
}

// Text of characters of one length, of all, and with what is almost one, at every place in a block of sixteen.
TEST(Utf, ConvertsLongTextAsCharacterByCharacter) {
    std::mt19937 engine(2);
    const auto random = [&engine] { return static_cast<unsigned>(engine()); };
    constexpr char32_t Last[] = {0x7F, 0x7FF, 0xFFFF, 0x10FFFF};
    const auto character = [&](std::size_t length) {
        const char32_t first = length == 0 ? 0 : Last[length - 1] + 1;
        char32_t code = 0;
        do
            code = first + random() % (Last[length] + 1 - first);
        while (code >= 0xD800 && code <= 0xDFFF);
        return ToUtf8(Wide(code));
    };
    for (int round = 0; round < 6000; ++round) {
        const std::size_t most = random() % 4;
        const bool isMixed = random() % 2;
        std::string text;
        while (text.size() < 64 + random() % 200)
            text += character(isMixed ? random() % (most + 1) : most);
        if (round % 2)
            for (unsigned faults = 1 + random() % 3; faults > 0; --faults)
                text[random() % text.size()] = static_cast<char>(random());
        if (round % 3 == 0) text.resize(text.size() - random() % 4);
        // Nothing of the block is left behind either end, where the address sanitizer looks.
        const std::size_t before = random() % 16;
        const std::unique_ptr<char[]> block(new char[before + text.size()]);
        std::copy(text.begin(), text.end(), block.get() + before);
        const std::string_view placed(block.get() + before, text.size());
        const std::wstring expected = Plain(text);
        ASSERT_EQ(ToWide(placed), expected) << testing::PrintToString(text);
        std::string valid;
        for (std::size_t i = 0; i < expected.size();) {
            const std::size_t size = SizeAt(expected, i);
            valid += ToUtf8(expected.substr(i, size));
            i += size;
        }
        EXPECT_EQ(ToUtf8(expected), valid);
        EXPECT_EQ(IsValidText(placed), valid == text);
        const std::string_view first = placed.substr(0, ValidLength(placed));
        EXPECT_TRUE(valid.starts_with(first));
        EXPECT_TRUE(first == text || Plain(placed.substr(first.size())).front() == 0xFFFD);
    }
}

// Units that are no characters among those that are.
TEST(Utf, CountsAndConvertsLongWideText) {
    std::mt19937 engine(3);
    const auto random = [&engine] { return static_cast<unsigned>(engine()); };
    constexpr char32_t Likely[] = {'a',     0x7F,     0x80,     0x7FF,      0x800,     0xD7FF,
                                   0xD800,  0xDBFF,   0xDC00,   0xDFFF,     0xE000,    0xFFFF,
                                   0x10000, 0x10FFFF, 0x110000, 0x80000000, 0xFFFFFFFF};
    for (int round = 0; round < 6000; ++round) {
        const auto kinds = static_cast<unsigned>(1 + random() % std::size(Likely));
        std::wstring text;
        while (text.size() < 64 + random() % 100)
            text += static_cast<wchar_t>(random() % 40 ? Likely[random() % kinds]
                                                       : Likely[random() % std::size(Likely)]);
        std::string expected;
        for (std::size_t i = 0; i < text.size();) {
            const std::size_t size = SizeAt(text, i);
            expected += ToUtf8(text.substr(i, size));
            i += size;
        }
        const std::size_t before = random() % 16;
        const std::unique_ptr<wchar_t[]> block(new wchar_t[before + text.size()]);
        std::copy(text.begin(), text.end(), block.get() + before);
        ASSERT_EQ(ToUtf8({block.get() + before, text.size()}), expected) << testing::PrintToString(text);
    }
}

}  // namespace
}  // namespace Quellan::Platform
