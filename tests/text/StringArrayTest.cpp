#include "TQLib/text/TQStringArray.h"
#include "support/ThrownCode.h"

#include <functional>
#include <gtest/gtest.h>
#include <string_view>
#include <vector>

namespace Quellan::Corvel {
namespace {

using Test::ThrownCode;

constexpr DWORD IndexCode = 1413;

TEST(StringArray, KeepsItsElementsInOrder) {
    TQStringArray array;
    array.Add(L"b");
    array.Insert(0, L"a");
    array.Insert(2, L"d");
    array.Insert(2, L"c");
    EXPECT_EQ(array, (TQStringArray{L"a", L"b", L"c", L"d"}));
    array.Remove(1);
    array.SetAt(0, L"A");
    EXPECT_EQ(array, (TQStringArray{L"A", L"c", L"d"}));
    EXPECT_EQ(array[2], L"d");
    std::wstring walked;
    for (const TQString& element : array)
        walked += element.View();
    EXPECT_EQ(walked, L"Acd");
    array.Clear();
    EXPECT_TRUE(array.IsEmpty());
}

TEST(StringArray, RefusesPositionsOutside) {
    TQStringArray array{L"a", L"b"};
    EXPECT_EQ(ThrownCode([&] { array.At(2); }), IndexCode);
    EXPECT_EQ(ThrownCode([&] { array[2] = L"x"; }), IndexCode);
    EXPECT_EQ(ThrownCode([&] { array.SetAt(2, L"x"); }), IndexCode);
    EXPECT_EQ(ThrownCode([&] { array.Insert(3, L"x"); }), IndexCode);
    EXPECT_EQ(ThrownCode([&] { array.Remove(2); }), IndexCode);
    EXPECT_EQ(array, (TQStringArray{L"a", L"b"}));
}

TEST(StringArray, FindsWithAndWithoutCase) {
    const TQStringArray array{L"a", L"B", L"b", L"B"};
    EXPECT_EQ(array.Find(L"b"), 2u);
    EXPECT_EQ(array.Find(L"B", 2), 3u);
    EXPECT_EQ(array.Find(L"x"), TQString::NotFound);
    EXPECT_EQ(array.Find(L"a", 9), TQString::NotFound);
    EXPECT_EQ(array.FindNoCase(L"b"), 1u);
    EXPECT_EQ(array.FindNoCase(L"x"), TQString::NotFound);
}

TEST(StringArray, SortsAndComparesByItsElements) {
    TQStringArray array{L"b", L"a", L"B", L""};
    array.Sort();
    EXPECT_EQ(array, (TQStringArray{L"", L"B", L"a", L"b"}));
    EXPECT_LT((TQStringArray{L"a"}), (TQStringArray{L"a", L""}));
    EXPECT_LT((TQStringArray{L"a", L"z"}), (TQStringArray{L"b"}));
}

TEST(StringArray, SortsAsItIsTold) {
    TQStringArray array{L"b", L"A", L"a", L"B", L"_"};
    array.SortNoCase();
    EXPECT_EQ(array, (TQStringArray{L"A", L"a", L"b", L"B", L"_"}));
    array.Sort(std::greater<TQString>());
    EXPECT_EQ(array, (TQStringArray{L"b", L"a", L"_", L"B", L"A"}));
}

TEST(StringArray, KeepsTheFirstOfEqualElements) {
    const TQStringArray all{L"b",
                            L"a",
                            L"B",
                            L"b",
                            L"\u00E9 and a text of some length",
                            L"a",
                            L"\u00C9 AND A TEXT OF SOME LENGTH"};
    TQStringArray array = all;
    array.Unique();
    EXPECT_EQ(array, (TQStringArray{L"b", L"a", L"B", all[4], all[6]}));
    array.UniqueNoCase();
    EXPECT_EQ(array, (TQStringArray{L"b", L"a", all[4]}));
}

TEST(StringArray, ChangesInPlace) {
    TQStringArray array(std::vector<std::wstring_view>{L"a", L"b"});
    array[0] += L"1";
    array.At(1) = L"c";
    for (TQString& element : array)
        element += L"!";
    EXPECT_EQ(array, (TQStringArray{L"a1!", L"c!"}));
    EXPECT_NE(std::hash<TQStringArray>()(array), std::hash<TQStringArray>()(TQStringArray{L"c!", L"a1!"}));
}

TEST(StringArray, SplitsAtEverySeparatorAndJoinsAgain) {
    const auto split = [](const wchar_t* text) { return TQStringArray::Split(text, L",;"); };
    EXPECT_EQ(split(L"a,b;c"), (TQStringArray{L"a", L"b", L"c"}));
    EXPECT_EQ(split(L",a,,b;"), (TQStringArray{L"", L"a", L"", L"b", L""}));
    EXPECT_EQ(split(L","), (TQStringArray{L"", L""}));
    EXPECT_EQ(split(L"whole"), (TQStringArray{L"whole"}));
    EXPECT_EQ(split(L""), TQStringArray());
    EXPECT_EQ(split(L",a,,b,").Join(L","), L",a,,b,");
    EXPECT_EQ((TQStringArray{L"a", L"b"}).Join(L" and "), L"a and b");
    EXPECT_EQ(TQStringArray().Join(L","), L"");
}

}  // namespace
}  // namespace Quellan::Corvel
