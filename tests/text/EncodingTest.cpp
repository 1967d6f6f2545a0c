#include "TQLib/text/TQEncoding.h"
#include "support/ThrownCode.h"

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace Quellan::Corvel {
namespace {

using namespace std::string_view_literals;
using Test::Thrown;
using Test::ThrownCode;

constexpr DWORD ParameterCode = 87;
constexpr DWORD CharacterCode = 1113;
constexpr TQEncodingRules Strict{.isStrict = true};
constexpr TQEncodingRules Marked{.hasMark = true};
constexpr UINT All[] = {65001, 1200,  1201,  12000, 12001, 437,   850,   852,   866,   1250,  1251,
                        1252,  1253,  1254,  1255,  1256,  1257,  1258,  28591, 28592, 28593, 28594,
                        28595, 28596, 28597, 28598, 28599, 28600, 28601, 28603, 28604, 28605, 28606};

std::wstring Decoded(UINT codePage, std::string_view bytes, TQEncodingRules rules = {}) {
    return std::wstring(TQEncoding(codePage).Decode(bytes, rules).View());
}

TEST(Encodings, AreFoundByNumberNameAndMark) {
    const struct {
        const wchar_t* name;
        UINT codePage;
    } names[] = {{L"utf8", 65001},        {L"UTF-16LE", 1200},     {L"cp65001", 65001},
                 {L"Windows_1252", 1252}, {L"CP 1252", 1252},      {L"ibm437", 437},
                 {L"cp437", 437},         {L"iso8859-1", 28591},   {L"ISO-8859-16", 28606},
                 {L"Latin-9", 28605},     {L"iso_8859_11", 28601}, {L"cp28603", 28603}};
    for (const auto& [name, codePage] : names)
        EXPECT_EQ(TQEncoding(name).CodePage(), codePage) << codePage;
    for (const wchar_t* const name :
         {L"", L"utf", L"utf-16", L"cp", L"cp125", L"cp12520", L"iso-8859-12", L"latin"}) {
        EXPECT_FALSE(TQEncoding::Find(name));
        EXPECT_EQ(ThrownCode([&] { TQEncoding{std::wstring_view(name)}; }), ParameterCode);
    }
    for (const UINT codePage : All) {
        const TQEncoding encoding(codePage);
        EXPECT_EQ(TQEncoding::Find(encoding.Name()), encoding);
        if (encoding.Mark().empty()) continue;
        EXPECT_EQ(TQEncoding::FindByMark(std::string(encoding.Mark()) + "a"), encoding);
    }
    EXPECT_EQ(ThrownCode([] { TQEncoding(932u); }), ParameterCode);
    EXPECT_FALSE(TQEncoding::FindByMark("\xFE"));
}

TEST(Encodings, ReadAndWriteTheirBytes) {
    const std::wstring text = L"a\u00E9\u20AC\U0001F600";
    const struct {
        UINT codePage;
        std::string_view bytes;
    } cases[] = {{65001, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"sv},
                 {1200, "a\0\xE9\0\xAC\x20\x3D\xD8\x00\xDE"sv},
                 {1201, "\0a\0\xE9\x20\xAC\xD8\x3D\xDE\x00"sv},
                 {12000, "a\0\0\0\xE9\0\0\0\xAC\x20\0\0\x00\xF6\x01\0"sv},
                 {12001, "\0\0\0a\0\0\0\xE9\0\0\x20\xAC\0\x01\xF6\x00"sv}};
    for (const auto& [codePage, bytes] : cases) {
        const TQEncoding encoding(codePage);
        const std::string marked = std::string(encoding.Mark()) + std::string(bytes);
        for (const TQEncodingRules rules : {TQEncodingRules{}, Strict}) {
            EXPECT_EQ(encoding.Encode(text, rules), bytes);
            EXPECT_EQ(Decoded(codePage, bytes, rules), text);
        }
        EXPECT_EQ(encoding.Encode(text, Marked), marked);
        EXPECT_EQ(encoding.Encode(L"", Marked), encoding.Mark());
        EXPECT_EQ(Decoded(codePage, marked, Marked), text);
        EXPECT_EQ(Decoded(codePage, marked), L"\uFEFF" + text);
    }
    EXPECT_EQ(TQEncoding(1252).Encode(L"a\u00E9\u20AC\x81", Marked), "a\xE9\x80\x81");
    EXPECT_EQ(TQEncoding(1252).Encode(L"\u0100\uFF21\u221E\uFFFD\U0001F600"), "?????");
    EXPECT_EQ(Decoded(1252, "\x80\x81\xFF"), L"\u20AC\x81\u00FF");
    EXPECT_EQ(Decoded(1253, "\xAA\xD2\x80\x81"), L"\uFFFD\uFFFD\u20AC\x81");
}

TEST(Encodings, TellThePlaceOfWhatStrictRulesRefuse) {
    const struct {
        UINT codePage;
        std::string_view bytes;
        int place;  // -1: of the end
        std::wstring_view lenient;
    } cases[] = {{65001, "abc\x80z"sv, 3, L"abc\uFFFDz"},
                 {65001, "ab\xE2\x82"sv, -2, L"ab\uFFFD"},
                 {65001, "\xED\xA0\x80"sv, 0, L"\uFFFD\uFFFD\uFFFD"},
                 {65001, "ab\xF0\x90\x80"sv, -2, L"ab\uFFFD"},
                 {65001, "\xE0\x9F"sv, 0, L"\uFFFD\uFFFD"},
                 {65001, "\xED\xA0"sv, 0, L"\uFFFD\uFFFD"},
                 {65001, "\xF4\x90"sv, 0, L"\uFFFD\uFFFD"},
                 {65001, "\xF5"sv, 0, L"\uFFFD"},
                 {65001, "\xC1"sv, 0, L"\uFFFD"},
                 {1200, "a\0\0\xDC"sv, 2, L"a\uFFFD"},
                 {1200, "\0\xD8z\0"sv, 0, L"\uFFFDz"},
                 {1200, "a\0b"sv, -2, L"a\uFFFD"},
                 {1201, "\xD8\0\xDC"sv, -1, L"\uFFFD"},
                 {12000, "a\0\0\0\0\xD8\0\0"sv, 4, L"a\uFFFD"},
                 {12001, "\0\x11\0\0"sv, 0, L"\uFFFD"},
                 {12001, "\0\0\0"sv, -1, L"\uFFFD"},
                 {1252, "ab\x81"sv, 2, L"ab\x81"},
                 {28593, "\xA5"sv, 0, L"\uFFFD"}};
    for (const auto& [codePage, bytes, place, lenient] : cases) {
        const std::wstring where =
            place < 0
                ? L"TQDecoder::Finish: byte " + std::to_wstring(codePage == 65001 || codePage == 1200 ? 2 : 0)
                : L"TQDecoder::Decode: byte " + std::to_wstring(place);
        const auto [code, text] = Thrown([&] { Decoded(codePage, bytes, Strict); });
        EXPECT_EQ(code, CharacterCode) << codePage;
        EXPECT_NE(text.find(where), text.npos) << testing::PrintToString(text);
        EXPECT_EQ(Decoded(codePage, bytes), lenient) << codePage;
    }
    for (const UINT codePage : {65001u, 1200u, 12001u, 1252u, 866u}) {
        const std::wstring invalid = {L'a', L'b', wchar_t(0xDC00)};
        const auto [code, text] = Thrown([&] { TQEncoding(codePage).Encode(invalid, Strict); });
        EXPECT_EQ(code, CharacterCode);
        EXPECT_NE(text.find(L"TQEncoder::Encode: character 2"), text.npos);
    }
    EXPECT_EQ(ThrownCode([] { TQEncoding(1252).Encode(L"\x81", Strict); }), CharacterCode);
    EXPECT_EQ(ThrownCode([] { TQEncoding(1252).Encode(L"\uFFFD", Strict); }), CharacterCode);
}

// All characters of the pages come back; strict rules refuse exactly the rest.
TEST(Encodings, GiveEachByteBack) {
    for (const UINT codePage : All) {
        const TQEncoding encoding(codePage);
        if (!encoding.Mark().empty()) continue;
        for (int byte = 0; byte < 256; ++byte) {
            const std::string bytes(1, static_cast<char>(byte));
            const TQString text = encoding.Decode(bytes);
            const bool isKnown = ThrownCode([&] { encoding.Decode(bytes, Strict); }) == 0;
            EXPECT_EQ(encoding.Encode(text), text == L"\uFFFD" ? "?" : bytes) << codePage << ' ' << byte;
            EXPECT_EQ(ThrownCode([&] { encoding.Encode(text, Strict); }) == 0, isKnown)
                << codePage << ' ' << byte;
        }
    }
}

TEST(Streams, GiveWhatTheWholeGivesWhereverTheyAreCut) {
    std::mt19937 random(20);
    const std::string_view parts[] = {"a"sv,
                                      "\xC3\xA9"sv,
                                      "\xE2\x82\xAC"sv,
                                      "\xF0\x9F\x98\x80"sv,
                                      "\xE0\x80"sv,
                                      "\xF4\x90"sv,
                                      "\x80\x81"sv,
                                      "\x3D\xD8\0\xDE"sv,
                                      "\xD8\x3D\xDE\0"sv,
                                      "\0\0"sv,
                                      "\xFF\xFE"sv,
                                      "\xEF\xBB\xBF"sv,
                                      "\0\x01\xF6\0"sv,
                                      "\xFF"sv};
    for (const UINT codePage : All)
        for (int round = 0; round < 40; ++round) {
            std::string bytes;
            for (unsigned i = 0; i < 1 + random() % 4; ++i)
                bytes += parts[random() % std::size(parts)];
            const TQEncoding encoding(codePage);
            const TQString whole = encoding.Decode(bytes, Marked);
            const std::string back = encoding.Encode(whole, Marked);
            for (std::size_t first = 0; first <= bytes.size(); ++first)
                for (std::size_t second = first; second <= bytes.size(); ++second) {
                    TQDecoder decoder(encoding, Marked);
                    TQString text = decoder.Decode(bytes.substr(0, first));
                    text += decoder.Decode(bytes.substr(first, second - first));
                    text += decoder.Decode(bytes.substr(second));
                    text += decoder.Finish();
                    ASSERT_EQ(text, whole) << codePage << ' ' << first << ' ' << second;
                }
            for (std::size_t first = 0; first <= whole.Length(); ++first) {
                TQEncoder encoder(encoding, Marked);
                std::string pieces = encoder.Encode(whole.View().substr(0, first));
                pieces += encoder.Encode(whole.View().substr(first));
                pieces += encoder.Finish();
                ASSERT_EQ(pieces, back) << codePage << ' ' << first;
            }
        }
}

TEST(Streams, AreAsBeforeWhenTheyThrow) {
    TQDecoder decoder(TQEncoding(65001), Strict);
    EXPECT_EQ(decoder.Decode("a\xE2"), L"a");
    const auto [code, text] = Thrown([&] { decoder.Decode("\x82\xAC\xFF"); });
    EXPECT_EQ(code, CharacterCode);
    EXPECT_NE(text.find(L"byte 4"), text.npos);
    EXPECT_EQ(decoder.Decode("\x82\xAC"), L"\u20AC");
    EXPECT_EQ(decoder.Finish(), L"");
}

TEST(Streams, CountOverTheirPiecesAndBeginAnewBehindTheEnd) {
    TQEncoder encoder(TQEncoding(1201), {.isStrict = true, .hasMark = true});
    TQDecoder decoder(TQEncoding(1201), {.isStrict = true, .hasMark = true});
    const std::wstring wrong = {L'c', wchar_t(0xDC00)};
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(encoder.Encode(L"ab"), "\xFE\xFF\0a\0b"sv);
        EXPECT_NE(Thrown([&] { encoder.Encode(wrong); }).second.find(L"character 3"), std::wstring::npos);
        EXPECT_EQ(encoder.Finish(), "");
        EXPECT_EQ(decoder.Decode("\xFE\xFF\0a"sv), L"a");
        EXPECT_NE(Thrown([&] { decoder.Decode("\xDC\0"sv); }).second.find(L"byte 4"), std::wstring::npos);
        EXPECT_EQ(decoder.Finish(), L"");
    }
}

}  // namespace
}  // namespace Quellan::Corvel
