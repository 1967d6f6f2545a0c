#include "TQLib/text/TQFormat.h"
#include "TQLib/text/TQString.h"
#include "support/FailCall.h"
#include "support/FormatRows.h"
#include "support/ThrownCode.h"

#include <algorithm>
#include <array>
#include <bit>
#include <gmock/gmock.h>
#include <limits>
#include <memory>
#include <string>

namespace Quellan::Corvel {
namespace {

using Test::FailAllocation;
using Test::FormatArgument;
using Test::FormatRow;
using Test::ReadFormatRows;
using Test::ThrownCode;
using namespace std::string_literals;

constexpr DWORD OverflowCode = 111;

// A pointer with a given address.
const void* At(std::uint64_t address) {
    return std::bit_cast<const void*>(address);
}

TQFormatArg ArgumentOf(const FormatArgument& argument) {
    const auto* const address = At(argument.value);
    switch (argument.kind) {
        case 'i':
            return TQFormatArg::From(argument.value);
        case 'r':
            return TQFormatArg::From(std::bit_cast<double>(argument.value));
        case 'p':
            return TQFormatArg::From(address);
        case 'w':
        case 'W':
            return TQFormatArg::From(static_cast<const wchar_t*>(address));
        default:
            return TQFormatArg::From(static_cast<const char*>(address));
    }
}

template <class C>
std::string Printed(const FormatRow& row) {
    std::vector<TQFormatArg> arguments;
    std::ranges::transform(row.arguments, std::back_inserter(arguments), ArgumentOf);
    std::array<C, 4096> out;
    const std::basic_string<C> format(row.format.begin(), row.format.end());
    const std::size_t length = FormatArgsTo(out, format.c_str(), arguments);
    std::string text;
    std::ranges::transform(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(length),
                           std::back_inserter(text), [](C c) { return static_cast<char>(c); });
    return text;
}

TEST(Format, PrintsWhatTheWindowsRuntimePrints) {
    const auto rows = ReadFormatRows(FORMAT_TABLE);
    ASSERT_GT(rows.size(), 700u);
    for (const FormatRow& row : rows)
        EXPECT_EQ(row.isWide ? Printed<wchar_t>(row) : Printed<char>(row), row.printed) << row.line;
}

TEST(Format, FollowsTheDocumentationWhereTheRecordingRuntimeDoesNot) {
    EXPECT_EQ(_TQwString::Format(L"%08.3d", 42), L"     042");
    EXPECT_EQ(_TQwString::Format(L"%hhu %hhd %hhx", -1, 0x1FF, 0x1234), L"255 -1 34");
    EXPECT_EQ(_TQwString::Format(L"%.4p", At(0x1234ABCD)), L"000000001234ABCD");
    EXPECT_EQ(_TQwString::Format(L"%.0c", L'A'), L"A");
    EXPECT_EQ(_TQwString::Format(L"%F", 0.5), L"0.500000");
}

TEST(Format, TakesTextAndNumbersOfEveryType) {
    enum class Level : BYTE { High = 200 };
    enum Plain { Minus = -3 };
    wchar_t buffer[] = L"buffer";
    volatile int changing = 0;
    EXPECT_EQ(_TQwString::Format(L"%s %s %s %s %s", buffer, std::wstring(L"standard"),
                                 std::wstring_view(L"view"), TQString(L"ours"), &buffer[3]),
              L"buffer standard view ours fer");
    EXPECT_EQ(_TQwString::Format(L"%S %S %hs", std::string("standard"), std::string_view("view"),
                                 _TQaString("ours")),
              L"standard view ours");
    EXPECT_EQ(_TQwString::Format(L"%d %d %d %c %llu", Level::High, Minus, true, 'c', std::size_t{5}),
              L"200 -3 1 c 5");
    EXPECT_EQ(_TQwString::Format(L"%.1f %.1Lf %lf", 0.5F, 0.5L, 2.0), L"0.5 0.5 2.000000");
    EXPECT_EQ(_TQwString::Format(L"%p", nullptr), L"0000000000000000");
    EXPECT_EQ(_TQwString::Format(L"%p", &changing), _TQwString::Format(L"%p", const_cast<int*>(&changing)));
}

TEST(Format, ConvertsTextOfTheOtherWidthAsUtf8) {
    const char* const narrow = "a\xC3\xA9\xF0\x9F\x98\x80z";
    const _TQwString wide = _TQwString::FromUtf8(narrow);
    EXPECT_EQ(_TQwString::Format(L"[%S]", narrow), L"[" + wide + L"]");
    EXPECT_EQ(_TQaString::Format("[%S]", wide), "["s + narrow + "]");
    EXPECT_EQ(_TQwString::Format(L"%S%hs", "\x80\x80\x80\x80\x80", "\xE2\x82"),
              L"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
    EXPECT_EQ(_TQwString::Format(L"%C%hc", 'a', 0xE9), L"a\uFFFD");
    EXPECT_EQ(_TQaString::Format("%C%lc", L'a', 0xE9), "a\xC3\xA9");
    EXPECT_EQ(_TQaString::Format("%lc", 0xD800), "\xEF\xBF\xBD");
}

TEST(Format, CountsTheWidthInThePrintedTextAndThePrecisionInTheGiven) {
    EXPECT_EQ(_TQwString::Format(L"[%4S]", "\xC3\xA9"), L"[   \u00E9]");
    EXPECT_EQ(_TQwString::Format(L"[%-4.3S]", "\xC3\xA9xyz"), L"[\u00E9x  ]");
    EXPECT_EQ(_TQaString::Format("[%4S]", L"\u00E9"), "[  \xC3\xA9]");
    EXPECT_EQ(_TQaString::Format("[%.1S]", L"\u00E9xyz"), "[\xC3\xA9]");
}

TEST(Format, DoesNotReadTextPastItsPrecision) {
    const std::wstring wide(100, L'w');
    const auto unterminated = std::make_unique<wchar_t[]>(3);
    std::copy_n(wide.begin(), 3, unterminated.get());
    const auto narrow = std::make_unique<char[]>(3);
    std::fill_n(narrow.get(), 3, 'n');
    EXPECT_EQ(_TQwString::Format(L"%.3s%.*S", unterminated.get(), 3, narrow.get()), L"wwwnnn");
}

// All prefixes of a text that every way of printing has a part in.
TEST(Format, CutsAtTheEndOfTheBufferAndReturnsTheWholeLength) {
    const auto format = [](std::span<wchar_t> out) {
        return FormatTo(out, L"text %s %8d %-8x| %06.2f %S %s %c%% %p", L"own", 42, 255, 1.5, "n\xC3\xA9",
                        std::wstring_view(L"view"), L'c', At(1));
    };
    std::array<wchar_t, 100> whole;
    const std::size_t length = format(whole);
    const std::wstring_view expected(whole.data(), length);
    EXPECT_EQ(expected, L"text own       42 ff      | 001.50 n\u00E9 view c% 0000000000000001");
    for (std::size_t size = 0; size <= length + 1; ++size) {
        std::wstring out(length + 2, L'#');
        EXPECT_EQ(format({out.data(), size}), length);
        const std::wstring_view fits = expected.substr(0, size == 0 ? 0 : size - 1);
        std::wstring wanted(fits);
        if (size != 0) wanted += L'\0';
        wanted.resize(length + 2, L'#');
        ASSERT_EQ(out, wanted) << "in a buffer of " << size;
    }
}

TEST(Format, AllocatesNothingInACallersBuffer) {
    std::array<wchar_t, 100> out;
    const FailAllocation counted(0);
    FormatTo(out, L"%c %s.%03hu [%S : %lu] %.300f", L'E', L"text", 7, "narrow", 1234, 1e300);
    EXPECT_EQ(counted.Calls(), 0u);
}

TEST(Format, PrintsAMarkWhereARuntimeFormatDoesNotFitItsArguments) {
    EXPECT_EQ(_TQwString::FormatRuntime(L"%s %d", 1, L"text"), L"<?> <?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%d %d %s", 1), L"1 <?> <?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%S|%s", L"wide", "narrow"), L"<?>|<?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%f %p %c", 1, 2.0, L"c"), L"<?> <?> <?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%p", std::wstring_view(L"no pointer")), L"<?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%y %\u0164 %d", 1, 2, 3), L"<?> <?> 3");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%wd %Ld %hf %lp %I64s %hhs %d", 1, 2, 3.0, At(4), L"5", "6", 7),
              L"<?> <?> <?> <?> <?> <?> 7");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%*d %.*d %d", L"no width", 1, 2.0, 3, 4), L"<?> <?> 4");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%*.*d %d", L"no width", 2, 3, 4), L"<?> 4");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%*"), L"<?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"%I"), L"<?>");
    EXPECT_EQ(_TQwString::FormatRuntime(L"100%"), L"100<?>");
    EXPECT_EQ(_TQwString::FormatRuntime(nullptr, 1), L"");
}

TEST(Format, NeverWritesThroughAnArgument) {
    int untouched = 5;
    EXPECT_EQ(_TQwString::FormatRuntime(L"abc%n%hhn%lln|%d", &untouched, &untouched, &untouched, 1),
              L"abc<?><?><?>|1");
    EXPECT_EQ(untouched, 5);
}

TEST(Format, RefusesFieldsPastTheLimitAndNoSmallerOnes) {
    constexpr int Limit = TQFormatMaxField;
    const auto length = [](const wchar_t* format, int star) {
        const TQFormatArg args[] = {TQFormatArg::From(star), TQFormatArg::From(1)};
        return FormatArgsTo(std::span<wchar_t>(), format, args);
    };
    EXPECT_EQ(length(L"%*d", Limit), static_cast<std::size_t>(Limit));
    EXPECT_EQ(length(L"%*d", -Limit), static_cast<std::size_t>(Limit));
    EXPECT_EQ(length(L"%.*d", Limit), static_cast<std::size_t>(Limit));
    for (const int star :
         {Limit + 1, -Limit - 1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        EXPECT_EQ(ThrownCode([&] { length(L"%*d", star); }), OverflowCode) << star;
    }
    EXPECT_EQ(ThrownCode([&] { length(L"%.*d", Limit + 1); }), OverflowCode);
    EXPECT_EQ(length(L"%.*d", std::numeric_limits<int>::min()), 1u);
    EXPECT_EQ(ThrownCode([] { return _TQwString::FormatRuntime(L"%1048577d", 1); }), OverflowCode);
    EXPECT_EQ(ThrownCode([] { return _TQwString::FormatRuntime(L"%.99999999999999999999d", 1); }),
              OverflowCode);
    EXPECT_EQ(FormatTo(std::span<wchar_t>(), L"%1048576.1048576f", 1.0), std::size_t{Limit} + 2);
}

TEST(Format, RefusesResultsPastTheLimitAndNoShorterOnes) {
    const std::string longest(TQFormatMaxLength - 1, 'x');
    const auto length = [&](const char* format) {
        const TQFormatArg args[] = {TQFormatArg::From(longest)};
        return FormatArgsTo(std::span<char>(), format, args);
    };
    EXPECT_EQ(length("%s|"), TQFormatMaxLength);
    EXPECT_EQ(ThrownCode([&] { length("%s||"); }), OverflowCode);
    TQString unchanged = L"unchanged";
    EXPECT_EQ(ThrownCode([&] { unchanged.AppendFormat(L"%S||", longest); }), OverflowCode);
    EXPECT_EQ(unchanged, L"unchanged");
}

}  // namespace
}  // namespace Quellan::Corvel
