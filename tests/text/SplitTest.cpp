#include "TQLib/text/TQSplit.h"
#include "TQLib/text/TQStringArray.h"

#include <gtest/gtest.h>
#include <list>
#include <ranges>
#include <sstream>
#include <string>
#include <vector>

namespace Quellan::Corvel {
namespace {

// Shown as they are read here: [a][b]
template <class Pieces>
std::string Shown(const Pieces& pieces) {
    std::string shown;
    for (const auto piece : pieces)
        shown += "[" + std::string(piece.begin(), piece.end()) + "]";
    return shown;
}

TEST(Split, FollowsItsSeparatorAndOptions) {
    using Options = TQSplitOptions;
    struct Row {
        const char* text;
        const char* separator;
        Options options;
        const char* pieces;
    };
    constexpr Options Skip = {.skipEmpty = true};
    constexpr Row Rows[] = {
        {"a,b;c", ",;", {}, "[a][b][c]"},
        {",a,,b,", ",", {}, "[][a][][b][]"},
        {",", ",", {}, "[][]"},
        {"whole", ",", {}, "[whole]"},
        {"", ",", {}, ""},
        {",a,,b,", ",", Skip, "[a][b]"},
        {",;,", ",;", Skip, ""},
        {"a,b,c", ",", {.limit = 2}, "[a][b,c]"},
        {"a,b,c", ",", {.limit = 1}, "[a,b,c]"},
        {"a,b,c", ",", {.limit = 0}, ""},
        {"a,b,c", ",", {.limit = 3}, "[a][b][c]"},
        {",,a,,,b,", ",", {.limit = 2, .skipEmpty = true}, "[a][b,]"},
        {",,a,,", ",", {.limit = 2, .skipEmpty = true}, "[a]"},
        {",,a,,b,", ",", {.limit = 1, .skipEmpty = true}, "[a,,b,]"},
    };
    for (const Row& row : Rows) {
        EXPECT_EQ(Shown(TQSplitAtAny(row.text, row.separator, row.options)), row.pieces) << row.text;
        if (row.separator[1]) continue;
        EXPECT_EQ(Shown(TQSplitAt(row.text, row.separator[0], row.options)), row.pieces) << row.text;
        // Each separator longer.
        _TQaString text = row.text, pieces = row.pieces;
        text.Replace(",", "<->");
        pieces.Replace(",", "<->");
        EXPECT_EQ(Shown(TQSplitAt(text, "<->", row.options)), pieces) << row.text;
    }
    EXPECT_EQ(Shown(TQSplitAt("abc", "")), "[abc]");
    EXPECT_EQ(Shown(TQSplitAtAny(L"a\u00E9b", L"\u00E9")), "[a][b]");
}

template <class T>
concept Splits = requires(T&& text) {
    TQSplitAt(std::forward<T>(text), L',');
};

TEST(Split, IsAForwardRangeOverATextThatLasts) {
    const TQString text = L"one two three";
    const auto pieces = TQSplitAt(text, L' ');
    static_assert(std::ranges::forward_range<decltype(pieces)> &&
                  std::ranges::view<std::remove_const_t<decltype(pieces)>>);
    static_assert(Splits<const TQString&> && Splits<TQString&> && Splits<std::wstring_view> &&
                  Splits<const wchar_t*>);
    static_assert(!Splits<TQString> && !Splits<std::wstring> && !Splits<_TQwString>);
    EXPECT_EQ(*std::next(pieces.begin(), 2), L"three");
    EXPECT_EQ(std::ranges::distance(pieces | std::views::filter([](auto p) { return p[0] == L't'; })), 2);
    EXPECT_EQ(pieces.begin(), pieces.begin());
    EXPECT_NE(pieces.begin(), std::next(pieces.begin()));
    EXPECT_EQ(TQStringArray(pieces), (TQStringArray{L"one", L"two", L"three"}));
}

TEST(Split, JoinsTextsOfAnyRange) {
    EXPECT_EQ(TQJoin(std::list<std::wstring>{L"a", L"", L"b"}, L", "), L"a, , b");
    EXPECT_EQ(TQJoin(std::vector<const char*>{"a", nullptr, "b"}, "-"), "a--b");
    EXPECT_EQ(TQJoin(TQStringArray{}, L","), L"");
    EXPECT_EQ(TQJoin(TQSplitAt("a b", ' '), ""), "ab");
    std::istringstream words("x y");
    EXPECT_EQ(TQJoin(std::views::istream<std::string>(words), "+"), "x+y") << "a range that is read once";
}

}  // namespace
}  // namespace Quellan::Corvel
