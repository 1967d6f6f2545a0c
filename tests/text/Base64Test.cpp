#include "TQLib/text/TQBase64.h"
#include "TQLib/text/TQHex.h"
#include "support/ThrownCode.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace Quellan::Corvel {
namespace {

using Test::Thrown;

constexpr DWORD DataCode = 13;
constexpr TQBase64Rules Unpadded{.isPadded = false};
constexpr TQBase64Rules UrlRules{.isUrl = true, .isPadded = false};
constexpr TQBase64Rules Spaced{.skipsSpace = true};

std::span<const BYTE> BytesOf(std::string_view text) {
    return {reinterpret_cast<const BYTE*>(text.data()), text.size()};
}

std::string TextOf(const BYTEBuf& bytes) {
    return {bytes.begin(), bytes.end()};
}

TEST(Base64, IsThatOfItsStandard) {
    const struct {
        std::string_view bytes;
        std::string_view text;
        TQBase64Rules rules;
    } cases[] = {{"", "", {}},
                 {"f", "Zg==", {}},
                 {"fo", "Zm8=", {}},
                 {"foo", "Zm9v", {}},
                 {"foobar", "Zm9vYmFy", {}},
                 {"f", "Zg", Unpadded},
                 {"fo", "Zm8", Unpadded},
                 {"\xFB\xFF\xBF", "+/+/", {}},
                 {"\xFB\xFF\xBF\xFF", "-_-__w", UrlRules}};
    for (const auto& [bytes, text, rules] : cases) {
        EXPECT_EQ(TQBase64::EncodeNarrow(BytesOf(bytes), rules), text);
        EXPECT_EQ(TextOf(TQBase64::Decode(text, rules)), bytes);
        const TQString wide = TQBase64::Encode(BytesOf(bytes), rules);
        EXPECT_EQ(wide, std::wstring(text.begin(), text.end()));
        EXPECT_EQ(TextOf(TQBase64::Decode(wide.View(), rules)), bytes);
    }
    EXPECT_EQ(TextOf(TQBase64::Decode(" Zm\r\n9 v\tYg = =", Spaced)), "foob");
}

TEST(Base64, RefusesEverythingElseAndTellsWhere) {
    const struct {
        std::string_view text;
        TQBase64Rules rules;
        int place;
    } cases[] = {{"Zg", {}, 2},         {"Zg=", {}, 3},
                 {"Zg===", {}, 4},      {"Zg==Zg==", {}, 4},
                 {"Zm9v=", {}, 4},      {"Z===", {}, 1},
                 {"Z", Unpadded, 1},    {"=", {}, 0},
                 {"Zg==", Unpadded, 2}, {"Zh==", {}, 1},
                 {"Zm9=", {}, 2},       {"Zm 9v", {}, 2},
                 {"Zm-v", {}, 2},       {"Zm+v", UrlRules, 2},
                 {"Z\xC3\xA9v", {}, 1}, {" Z m\n9 ? ", Spaced, 7},
                 {"Z g = ", Spaced, 6}, {"Zm9vZm9v?m9vZm9vZm9vZm9vZm9vZm9v", {}, 8}};
    for (const auto& [text, rules, place] : cases) {
        const auto expected = L"TQBase64::Decode: character " + std::to_wstring(place);
        const auto narrow = Thrown([&] { TQBase64::Decode(text, rules); });
        EXPECT_EQ(narrow.first, DataCode) << text;
        EXPECT_NE(narrow.second.find(expected), std::wstring::npos)
            << text << testing::PrintToString(narrow.second);
        const std::wstring wide(text.begin(), text.end());
        EXPECT_EQ(Thrown([&] { TQBase64::Decode(std::wstring_view(wide), rules); }), narrow);
    }
    EXPECT_EQ(Thrown([] { TQBase64::Decode(L"\u015Am9v"); }).first, DataCode);  // 5A, Z, in its lower byte
}

// Around the blocks in which long text is converted.
TEST(Base64, GivesBytesOfAllLengthsBackAndSeesEachWrongCharacter) {
    std::mt19937 random(4);
    for (std::size_t size = 0; size < 120; ++size)
        for (const TQBase64Rules rules : {TQBase64Rules{}, UrlRules}) {
            std::string bytes(size, '\0');
            for (char& byte : bytes)
                byte = static_cast<char>(random());
            std::string text = TQBase64::EncodeNarrow(BytesOf(bytes), rules);
            EXPECT_EQ(TextOf(TQBase64::Decode(text, rules)), bytes);
            const std::size_t last = std::min(text.find('='), text.size());
            if (last == 0) continue;
            const std::size_t place = random() % last;
            for (const char wrong : {'\0', '!', ',', '.', ':', '@', '[', '`', '{', '\x7F', '\x80', '\xFF',
                                     rules.isUrl ? '+' : '-', rules.isUrl ? '/' : '_'}) {
                std::string spoilt = text;
                spoilt[place] = wrong;
                const std::wstring message = Thrown([&] { TQBase64::Decode(spoilt, rules); }).second;
                EXPECT_NE(message.find(L"character " + std::to_wstring(place)), message.npos)
                    << place << ' ' << size;
            }
        }
}

TEST(Base64, KnowsTheValueOfEachLetterInLongText) {
    std::string bytes;
    for (unsigned i = 0; i < 64; i += 4) {
        const unsigned bits = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
        bytes += {static_cast<char>(bits >> 16), static_cast<char>(bits >> 8), static_cast<char>(bits)};
    }
    const std::string letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    EXPECT_EQ(TQBase64::EncodeNarrow(BytesOf(bytes + bytes)), letters + "+/" + letters + "+/");
    EXPECT_EQ(TextOf(TQBase64::Decode(letters + "-_" + letters + "-_", UrlRules)), bytes + bytes);
}

TEST(Hex, IsTwoDigitsAByte) {
    EXPECT_EQ(TQHex::EncodeNarrow(BytesOf("\x01\x9A\xFF")), "019aff");
    EXPECT_EQ(TQHex::Encode(BytesOf("\x01\x9A\xFF"), TQHex::Digits::Upper), L"019AFF");
    EXPECT_EQ(TextOf(TQHex::Decode("019aFf")), "\x01\x9A\xFF");
    EXPECT_EQ(TextOf(TQHex::Decode(L"0 19a\nFf ", TQHex::Space::Skipped)), "\x01\x9A\xFF");
    const struct {
        std::string_view text;
        TQHex::Space space;
        int place;
    } cases[] = {{"0", TQHex::Space::Refused, 1},    {"01 2", TQHex::Space::Refused, 2},
                 {"0g", TQHex::Space::Refused, 1},   {"01/", TQHex::Space::Refused, 2},
                 {" 0 x", TQHex::Space::Skipped, 3}, {"\xFF", TQHex::Space::Refused, 0}};
    for (const auto& [text, space, place] : cases) {
        const auto [code, message] = Thrown([&] { TQHex::Decode(text, space); });
        EXPECT_EQ(code, DataCode) << text;
        EXPECT_NE(message.find(L"character " + std::to_wstring(place)), message.npos) << text;
    }
}

}  // namespace
}  // namespace Quellan::Corvel
