#include "TQLib/platform/Win32.h"
#include "TQLib/text/STLString.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/TQStringStd.h"
#include "support/ThrownCode.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <iomanip>
#include <limits>
#include <ranges>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Quellan::Corvel {

namespace {

using Test::ThrownCode;

constexpr DWORD LengthCode = 111;
constexpr DWORD PositionCode = 1413;

// ASCII text in the tested width.
template <class C>
struct Text {
    std::basic_string<C> operator()(std::string_view ascii) const { return {ascii.begin(), ascii.end()}; }
};

// What wide and narrow strings have in common.
template <class C>
class StringOf : public testing::Test {};

using Widths = testing::Types<wchar_t, char>;
TYPED_TEST_SUITE(StringOf, Widths);

TYPED_TEST(StringOf, TakesANullForTheEmptyText) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const TypeParam* const null = nullptr;
    String text = null;
    EXPECT_TRUE(text.IsEmpty());
    EXPECT_EQ(text.c_str()[0], TypeParam{});
    text.Append(null).Insert(0, null) += nullptr;
    EXPECT_EQ(text, null);
    EXPECT_EQ(text + null, String(null, 0));
    EXPECT_EQ(ThrownCode([&] { String(null, 3); }), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(String(T("abc")).Find(null), 0u);
    EXPECT_GT(String(T("abc")).Compare(null), 0);
    EXPECT_EQ(String(T("abc")).Assign(null), T(""));
}

TYPED_TEST(StringOf, HoldsZerosLikeOtherCharacters) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const auto zeros = T(std::string_view("a\0b\0", 4));
    const String text(zeros.data(), zeros.size());
    EXPECT_EQ(text.Length(), 4u);
    EXPECT_EQ(text, zeros);
    EXPECT_NE(text, zeros.c_str());
    EXPECT_EQ((text + text).Length(), 8u);
    EXPECT_EQ(text.ReverseFind(std::basic_string_view<TypeParam>(zeros).substr(3)), 3u);
}

TYPED_TEST(StringOf, RefusesPositionsOutside) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    String text = T("abc");
    EXPECT_EQ(text.At(2), TypeParam{'c'});
    text.SetAt(2, TypeParam{'d'});
    EXPECT_EQ(text[2], TypeParam{'d'});
    EXPECT_EQ(ThrownCode([&] { text.At(3); }), PositionCode);
    EXPECT_EQ(ThrownCode([&] { text[text.NotFound]; }), PositionCode);
    EXPECT_EQ(ThrownCode([&] { text.SetAt(3, TypeParam{'x'}); }), PositionCode);
    EXPECT_EQ(ThrownCode([&] { text.Insert(4, T("x")); }), PositionCode);
    EXPECT_EQ(ThrownCode([&] { text.Remove(4); }), PositionCode);
    EXPECT_EQ(ThrownCode([&] { return text.Mid(4); }), PositionCode);
    EXPECT_EQ(text, T("abd"));
}

TYPED_TEST(StringOf, CutsPiecesAndClipsTheirCounts) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const String text = T("abcdef");
    EXPECT_EQ(text.Left(2), T("ab"));
    EXPECT_EQ(text.Left(7), text);
    EXPECT_EQ(text.Right(2), T("ef"));
    EXPECT_EQ(text.Right(7), text);
    EXPECT_EQ(text.Mid(2), T("cdef"));
    EXPECT_EQ(text.Mid(2, 3), T("cde"));
    EXPECT_EQ(text.Mid(6), T(""));
}

TYPED_TEST(StringOf, ChangesInPlace) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    String text = T("bd");
    EXPECT_EQ(text.Insert(1, T("c")).Insert(0, T("a")).Insert(4, T("e")), T("abcde"));
    EXPECT_EQ(text.Remove(1, 2), T("ade"));
    EXPECT_EQ(text.Remove(1), T("a"));
    text += TypeParam{'z'};
    EXPECT_EQ(text, T("az"));
    text.Clear();
    EXPECT_EQ(text, T(""));
}

TYPED_TEST(StringOf, TakesItselfAsText) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const auto original = T("text longer than a string holds without memory of its own");
    String text = original;
    text.Append(text.View().substr(5));
    EXPECT_EQ(text, original + original.substr(5));
    text = original;
    text.Insert(4, text);
    EXPECT_EQ(text, original.substr(0, 4) + original + original.substr(4));
    text = original;
    text.Assign(text.View().substr(5));
    EXPECT_EQ(text, original.substr(5));
    text = original;
    EXPECT_EQ(text.Replace(text, text + text), 1u);
    EXPECT_EQ(text, original + original);
    text = text;
    EXPECT_EQ(text, original + original);
}

TYPED_TEST(StringOf, FindsFromBothEnds) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    constexpr std::size_t NotFound = String::NotFound;
    const String text = T("ab.AB.ab");
    EXPECT_EQ(text.Find(T("ab")), 0u);
    EXPECT_EQ(text.Find(T("ab"), 1), 6u);
    EXPECT_EQ(text.Find(T("ab"), 7), NotFound);
    EXPECT_EQ(text.Find(T(""), 8), 8u);
    EXPECT_EQ(text.Find(T(""), 9), NotFound);
    EXPECT_EQ(text.FindNoCase(T("aB"), 1), 3u);
    EXPECT_EQ(text.FindNoCase(T("x")), NotFound);
    EXPECT_EQ(text.ReverseFind(T("ab")), 6u);
    EXPECT_EQ(text.ReverseFind(T("ab"), 5), 0u);
    EXPECT_EQ(text.ReverseFind(T("x")), NotFound);
}

TYPED_TEST(StringOf, FindsCharactersOfASet) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const String text = T("a,b;c");
    EXPECT_EQ(text.FindAny(T(";,")), 1u);
    EXPECT_EQ(text.FindAny(T(";,"), 2), 3u);
    EXPECT_EQ(text.FindAny(T("x")), String::NotFound);
    EXPECT_EQ(text.FindAny(T(""), 9), String::NotFound);
    const String distant = T(std::string(300, 'a') + ";b,");
    EXPECT_EQ(distant.FindAny(T(",;")), 300u);
    EXPECT_EQ(distant.FindAny(T(",x")), 302u);
    EXPECT_EQ(text.FindNotAny(T("ab,")), 3u);
    EXPECT_EQ(text.FindNotAny(T("abc,;")), String::NotFound);
}

TYPED_TEST(StringOf, CountsWithoutOverlaps) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const String text = T("aaaa.A");
    EXPECT_EQ(text.Count(T("a")), 4u);
    EXPECT_EQ(text.Count(T("aa")), 2u);
    EXPECT_EQ(text.Count(T("x")) + text.Count(T("")), 0u);
    EXPECT_TRUE(text.Contains(T(".A")) && text.ContainsNoCase(T("A.a")));
    EXPECT_FALSE(text.Contains(T(".a")) || text.ContainsNoCase(T("b")));
}

TYPED_TEST(StringOf, MatchesPatternsWithWildcards) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    struct Row {
        const char* text;
        const char* pattern;
        bool matches;
    };
    constexpr Row Rows[] = {
        {"", "", true},
        {"", "*", true},
        {"", "?", false},
        {"a", "", false},
        {"abc", "abc", true},
        {"abc", "a?c", true},
        {"abc", "a?", false},
        {"abc", "*", true},
        {"abc", "a*", true},
        {"abc", "*c", true},
        {"abc", "*b", false},
        {"abc", "**b**", true},
        {"abcbc", "a*bc", true},
        {"mississippi", "m*iss*pi", true},
        {"mississippi", "m*iss?pi", false},
        {"aab", "*ab", true},
        {"aXbXc", "a*X?", true},
        {"a.txt", "*.tx?", true},
        {"a.txt", "?.TXT", false},
    };
    for (const Row& row : Rows) {
        EXPECT_EQ(String(T(row.text)).Matches(T(row.pattern)), row.matches) << row.text << " " << row.pattern;
        const String upper = T(row.text);
        EXPECT_EQ(upper.ToUpper().MatchesNoCase(String(T(row.pattern)).ToLower()),
                  row.matches || row.pattern == std::string_view("?.TXT"));
    }
    // In no time: a star is never tried again behind a later one.
    EXPECT_FALSE(String(T(std::string(20'000, 'a'))).Matches(T("*a*a*a*a*a*a*a*a*a*a*b")));
}

TYPED_TEST(StringOf, KnowsItsEnds) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const String text = T("Name.Txt");
    EXPECT_TRUE(text.StartsWith(T("Name")) && text.EndsWith(T(".Txt")) && text.StartsWith(T("")) &&
                text.EndsWith(text));
    EXPECT_FALSE(text.StartsWith(T("name")) || text.EndsWith(T(".txt")) || text.StartsWith(text + T("x")));
    EXPECT_TRUE(text.StartsWithNoCase(T("nAME")) && text.EndsWithNoCase(T(".TXT")) &&
                text.EndsWithNoCase(T("")));
    EXPECT_FALSE(text.StartsWithNoCase(T("nb")) || text.EndsWithNoCase(T("a.txt")) ||
                 text.EndsWithNoCase(T("xName.Txt")));
}

TYPED_TEST(StringOf, ReplacesFromLeftToRight) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const auto replaced = [&](const char* text, const char* what, const char* with, std::size_t count) {
        String result = T(text);
        EXPECT_EQ(result.Replace(T(what), T(with)), count);
        return result;
    };
    EXPECT_EQ(replaced("aXbX", "X", "--", 2), T("a--b--"));
    EXPECT_EQ(replaced("aaa", "aa", "a", 1), T("aa"));
    EXPECT_EQ(replaced("abc", "b", "", 1), T("ac"));
    EXPECT_EQ(replaced("abc", "", "x", 0), T("abc"));
    EXPECT_EQ(replaced("abc", "x", "y", 0), T("abc"));
}

TYPED_TEST(StringOf, ReplacesWithoutCase) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    String text = T("abABaBx");
    EXPECT_EQ(text.ReplaceNoCase(T("Ab"), T("-")), 3u);
    EXPECT_EQ(text, T("---x"));
    EXPECT_EQ(text.ReplaceNoCase(T("y"), T("z")), 0u);
}

TYPED_TEST(StringOf, PadsAndRepeats) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    EXPECT_EQ(String(T("7")).PadLeft(3, TypeParam{'0'}), T("007"));
    EXPECT_EQ(String(T("ab")).PadRight(4), T("ab  "));
    EXPECT_EQ(String(T("abc")).PadLeft(2).PadRight(3), T("abc"));
    EXPECT_EQ(String(T("ab")).Repeat(3), T("ababab"));
    EXPECT_EQ(String(T("ab")).Repeat(0), T(""));
    String text = T("ab");
    const std::size_t most = std::numeric_limits<std::size_t>::max();
    EXPECT_EQ(ThrownCode([&] { text.PadLeft(most); }), LengthCode);
    EXPECT_EQ(ThrownCode([&] { text.Repeat(most / 2 + 2); }), LengthCode);
    EXPECT_EQ(text, T("ab"));
}

TYPED_TEST(StringOf, IsARangeAndGoesIntoStreams) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    static_assert(std::ranges::contiguous_range<const String&>);
    const String text = T("abc");
    std::basic_string<TypeParam> walked;
    for (const TypeParam c : text)
        walked += c;
    EXPECT_EQ(walked, T("abc"));
    std::ostringstream narrow;
    narrow << std::setw(5) << text << '|';
    EXPECT_EQ(narrow.str(), "  abc|");
    std::wostringstream wide;
    wide << text;
    EXPECT_EQ(wide.str(), L"abc");
}

TYPED_TEST(StringOf, TrimsWhiteSpaceOrAGivenSet) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const auto padded = T(" \t\n\v\f\r a b \r\f\v\n\t ");
    EXPECT_EQ(String(padded).Trim(), T("a b"));
    EXPECT_EQ(String(padded).TrimLeft(), T("a b \r\f\v\n\t "));
    EXPECT_EQ(String(padded).TrimRight(), T(" \t\n\v\f\r a b"));
    EXPECT_EQ(String(T("--a-b-+")).Trim(T("+-")), T("a-b"));
    EXPECT_EQ(String(T("--a-b--")).TrimLeft(T("-")), T("a-b--"));
    EXPECT_EQ(String(T("--a-b--")).TrimRight(T("-")), T("--a-b"));
    EXPECT_EQ(String(T(" \t")).Trim(), T(""));
    EXPECT_EQ(String(T("a")).Trim(T("")), T("a"));
}

TYPED_TEST(StringOf, ComparesWithTextOfEveryKind) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const String text = T("b");
    const auto standard = T("b");
    const std::basic_string_view<TypeParam> view = standard;
    EXPECT_TRUE(text == standard && text == view && text == standard.c_str() && standard == text &&
                view == text && standard.c_str() == text && text == String(standard));
    const auto larger = T("bb");
    EXPECT_TRUE(text < larger && text < std::basic_string_view<TypeParam>(larger) && larger.c_str() > text &&
                text != larger && String(larger) > text && text >= standard);
    EXPECT_EQ(text + standard + view, standard + T("bb"));
    EXPECT_EQ(standard.c_str() + text, view + text);
}

TYPED_TEST(StringOf, OrdersWithAndWithoutCase) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    const auto sign = [](int order) { return (order > 0) - (order < 0); };
    const auto order = [&](const char* a, const char* b) {
        const int plain = sign(String(T(a)).Compare(T(b)));
        const int noCase = sign(String(T(a)).CompareNoCase(T(b)));
        EXPECT_EQ(sign(String(T(b)).CompareNoCase(T(a))), -noCase);
        return std::pair(plain, noCase);
    };
    EXPECT_EQ(order("abc", "ABC"), std::pair(1, 0));
    EXPECT_EQ(order("a", "B"), std::pair(1, -1));
    EXPECT_EQ(order("ab", "abc"), std::pair(-1, -1));
    // By upper case: the underscore stands behind all letters.
    EXPECT_EQ(order("_", "a"), std::pair(-1, 1));
    EXPECT_EQ(order("", ""), std::pair(0, 0));
}

TYPED_TEST(StringOf, RefusesALengthPastTheLargest) {
    using String = _TQStringT<TypeParam>;
    const Text<TypeParam> T;
    String text = T("abc");
    EXPECT_EQ(ThrownCode([&] { text.Reserve(std::numeric_limits<std::size_t>::max()); }), LengthCode);
    EXPECT_EQ(text, T("abc"));
}

TEST(String, MapsTheCaseOfWideTextByThePlatformsTables) {
    const TQString text = L"stra\u00DFe \u00E9\u00FF \u03B1\u03C9 \u0434";
    EXPECT_EQ(text.ToUpper(), L"STRA\u00DFE \u00C9\u0178 \u0391\u03A9 \u0414");
    EXPECT_EQ(text.ToUpper().ToLower(), text);
    EXPECT_EQ(text.CompareNoCase(text.ToUpper()), 0);
    EXPECT_LT(TQString(L"\u00E9a").CompareNoCase(L"\u00C9B"), 0);
    EXPECT_GT(TQString(L"a\u00E9").CompareNoCase(L"AZ"), 0);
    EXPECT_EQ(text.FindNoCase(L"\u00C9\u0178"), 7u);
    EXPECT_TRUE(text.StartsWithNoCase(L"STRA\u00DFE \u00C9") && text.EndsWithNoCase(L"\u0391\u03A9 \u0414"));
}

TEST(String, LeavesNarrowLettersBeyondAsciiAlone) {
    const _TQaString text = "\xC3\xA9x";
    EXPECT_EQ(text.ToUpper(), "\xC3\xA9X");
    EXPECT_GT(text.CompareNoCase("z"), 0);
}

TEST(String, ConvertsToAndFromUtf8) {
    const TQString wide = L"a\u00E9\u20AC";
    const _TQaString narrow = "a\xC3\xA9\xE2\x82\xAC";
    EXPECT_EQ(wide.ToUtf8(), narrow);
    EXPECT_EQ(TQString::FromUtf8(narrow), wide);
    EXPECT_EQ(TQString::FromUtf8("x\xFF"), L"x\uFFFD");
    EXPECT_EQ(TQString::FromUtf8(nullptr), L"");
    EXPECT_EQ(TQString().ToUtf8(), "");
}

TEST(String, ConvertsToAndFromUtf16And32) {
    const TQString text = L"a\u00E9\u20AC\U0001F600";
    EXPECT_EQ(text.ToUtf16(), u"a\u00E9\u20AC\U0001F600");
    EXPECT_EQ(text.ToUtf32(), U"a\u00E9\u20AC\U0001F600");
    EXPECT_EQ(TQString::FromUtf16(text.ToUtf16()), text);
    EXPECT_EQ(TQString::FromUtf32(text.ToUtf32()), text);
    EXPECT_EQ(TQString::FromUtf8(u8"a\u00E9\u20AC\U0001F600"), text);
    EXPECT_EQ(TQString::FromUtf8(std::u8string(u8"\u00E9")), L"\u00E9");
    const char16_t alone[] = {u'a', 0xD83D, u'b', 0xDE00, 0xD83D, 0};
    EXPECT_EQ(TQString::FromUtf16(alone), L"a\uFFFDb\uFFFD\uFFFD");
    const char32_t none[] = {0x110000, 0xDFFF, 0xFFFFFFFF, 0};
    EXPECT_EQ(TQString::FromUtf32(none), L"\uFFFD\uFFFD\uFFFD");
    std::ostringstream narrow;
    narrow << text;
    EXPECT_EQ(narrow.str(), text.ToUtf8().View());
    std::wostringstream wide;
    wide << text.ToUtf8();
    EXPECT_EQ(wide.str(), text.View());
}

TEST(String, ConvertsToAndFromPaths) {
    const TQString text = L"folder/\u00E9\u20AC";
    EXPECT_EQ(TQToPath(text), std::filesystem::path(u8"folder/\u00E9\u20AC"));
    EXPECT_EQ(TQFromPath(TQToPath(text)), text);
}

TEST(String, ConvertsToAndFromTheAnsiCodePage) {
    const TQString text = L"plain text longer than a string holds without memory";
    EXPECT_EQ(text.ToAnsi(), text.ToUtf8());
    EXPECT_EQ(TQString::FromAnsi(text.ToUtf8()), text);
    char expected[16] = {};
    WideCharToMultiByte(CP_ACP, 0, L"\u00E9", -1, expected, sizeof expected, nullptr, nullptr);
    EXPECT_EQ(TQString(L"\u00E9").ToAnsi(), expected);
    EXPECT_EQ(TQString().ToAnsi(), "");
    EXPECT_EQ(TQString::FromAnsi(nullptr), L"");
}

TEST(String, FormatsTextThatRefersToItself) {
    TQString text = L"start";
    for (int i = 0; i < 8; ++i)
        text.AppendFormat(L"|%s", text);
    EXPECT_EQ(text.Length(), 6u * 256 - 1);
    std::wstring pieces = text.View().data();
    std::erase(pieces, L'|');
    EXPECT_EQ(pieces.substr(pieces.size() - 10), L"startstart");
}

TEST(String, ChangesBetweenItsClasses) {
    const std::wstring standard = L"standard text that is longer than a few characters";
    STLString rendered = standard;
    EXPECT_EQ(rendered.Std(), standard);
    TQString text = rendered;
    EXPECT_EQ(text, rendered);
    const wchar_t* const characters = text.c_str();
    rendered = std::move(text);
    EXPECT_EQ(rendered.Std().c_str(), characters) << "moved, not copied";
    const TQString fromPiece = rendered.Left(8);
    EXPECT_EQ(fromPiece, L"standard");
}

TEST(String, IsAKeyOfUnorderedContainers) {
    std::unordered_map<TQString, int> map{{L"one", 1}, {L"two", 2}};
    EXPECT_EQ(map.at(TQString(L"t") + L"wo"), 2);
    EXPECT_EQ(std::hash<_TQaString>()("x"), std::hash<std::string_view>()("x"));
    EXPECT_EQ(std::hash<STLString>()(L"x"), std::hash<TQString>()(L"x"));
}

}  // namespace
}  // namespace Quellan::Corvel
