#include "TQLib/log/internal/LogRecord.h"

#include <gtest/gtest.h>

namespace Quellan::Corvel::Test {
namespace {

constexpr TQLogLevel Level(int number) {
    return static_cast<TQLogLevel>(number);
}

LogRecord Example() {
    return {.level = Level(10),
            .time = TQTime(TQTime::Fields{2024, 5, 17, 14, 3, 27, 45}),
            .application = L"Monitor",
            .process = 2316,
            .module = L"monitor.exe",
            .thread = 4410,
            .source = {},
            .user = {},
            .message = L"The disk is nearly full."};
}

std::wstring Text(const LogRecord& record) {
    LogText text;
    AppendLogRecord(text, record);
    return std::wstring(text.View());
}

std::wstring MessageOf(std::wstring_view message) {
    LogRecord record = Example();
    record.message = message;
    const std::wstring text = Text(record);
    return text.substr(text.find(L'\n') + 1);
}

constexpr std::wstring_view Head = L"W 14:03:27.045 [Monitor : 2316 (monitor.exe){4410}]";
constexpr std::wstring_view User = L"HOST\\admin {S-1-5-21-1-2-3-500}";
constexpr std::wstring_view Body = L"\n    The disk is nearly full.";

std::wstring Expected(std::wstring_view behindHead) {
    return std::wstring(Head).append(behindHead).append(Body);
}

TEST(LogRecord, HasOneOfFourHeads) {
    LogRecord record = Example();
    EXPECT_EQ(Text(record), Expected(L""));
    record.source = L"Worker";
    EXPECT_EQ(Text(record), Expected(L" -- [Worker]"));
    record.user = User;
    EXPECT_EQ(Text(record), Expected(L" -- [Worker] -- [HOST\\admin {S-1-5-21-1-2-3-500}]"));
    record.source.reset();
    EXPECT_EQ(Text(record), Expected(L" -- [] -- [HOST\\admin {S-1-5-21-1-2-3-500}]"));
}

TEST(LogRecord, HasAHeadOfOneLineWhateverTheNames) {
    LogRecord record = Example();
    record.source = L"a\r\nW 14:03:28.000 [forged : 1 (x){1}]";
    record.user = L"\x1B[2J\x7F\x85\x2028\u00E9";
    EXPECT_EQ(Text(record), Expected(LR"( -- [a\x0D\x0AW 14:03:28.000 [forged : 1 (x){1}]])"
                                     LR"( -- [\x1B[2J\x7F\x85\x2028)"
                                     L"\u00E9]"));
    record = Example();
    record.application = record.module = L"x\ny";
    EXPECT_EQ(Text(record), L"W 14:03:27.045 [x\\x0Ay : 2316 (x\\x0Ay){4410}]" + std::wstring(Body));
}

TEST(LogRecord, HasThreeDigitsOfMillisecondsAndTheTimeOfDayOf24Hours) {
    LogRecord record = Example();
    record.time = TQTime(TQTime::Fields{2024, 5, 17, 0, 0, 59, 7});
    EXPECT_TRUE(Text(record).starts_with(L"W 00:00:59.007 [") || Text(record).starts_with(L"W 0:00:59.007 ["))
        << "an hour of one digit is the locale's affair";
    record.time = TQTime(TQTime::Fields{2024, 5, 17, 23, 59, 0, 999});
    EXPECT_TRUE(Text(record).starts_with(L"W 23:59:00.999 ["));
}

TEST(LogRecord, HasTheMarkOfItsLevel) {
    std::wstring marks;
    for (int number = -1; number <= 14; ++number)
        marks += LogMark(Level(number));
    EXPECT_EQ(marks, L"?RsLioDASTIWEX#?");
}

TEST(LogRecord, IndentsTheMessageTwiceBehindCrLf) {
    EXPECT_EQ(MessageOf(L"a\r\nb\nc"), L"    a\n        b\n    c");
    EXPECT_EQ(MessageOf(L"\r\n"), L"    \n        ");
    EXPECT_EQ(MessageOf(L"a\r\r\nb\rc"), L"    a\r\n        b\rc");
    EXPECT_EQ(MessageOf(L""), L"    ");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
