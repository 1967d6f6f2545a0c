#include "TQLib/log/internal/LogRecord.h"
#include "TQLib/text/TQString.h"

#include <gtest/gtest.h>

namespace Quellan::Corvel::Test {
namespace {

constexpr TQLogLevel Level(int number) {
    return static_cast<TQLogLevel>(number);
}

LogRecord Example() {
    return {.level = Level(10),
            .time = "14:03:27",
            .millisecond = 45,
            .writer = "[Monitor : 2316 (monitor.exe){4410}]",
            .source = {},
            .user = {},
            .message = L"The disk is nearly full."};
}

std::string Text(const LogRecord& record) {
    AnsiText text;
    AppendLogRecord(text, record);
    return std::string(text.View());
}

std::string MessageOf(std::wstring_view message) {
    LogRecord record = Example();
    record.message = message;
    const std::string text = Text(record);
    return text.substr(text.find('\n') + 1);
}

constexpr std::string_view Head = "W 14:03:27.045 [Monitor : 2316 (monitor.exe){4410}]";
constexpr std::string_view User = "HOST\\admin {S-1-5-21-1-2-3-500}";
constexpr std::string_view Body = "\r\n    The disk is nearly full.\r\n";

std::string Expected(std::string_view behindHead) {
    return std::string(Head).append(behindHead).append(Body);
}

TEST(LogRecord, HasOneOfFourHeads) {
    LogRecord record = Example();
    EXPECT_EQ(Text(record), Expected(""));
    record.source = L"Worker";
    EXPECT_EQ(Text(record), Expected(" -- [Worker]"));
    record.user = User;
    EXPECT_EQ(Text(record), Expected(" -- [Worker] -- [HOST\\admin {S-1-5-21-1-2-3-500}]"));
    record.source.reset();
    EXPECT_EQ(Text(record), Expected(" -- [] -- [HOST\\admin {S-1-5-21-1-2-3-500}]"));
    record.user.reset();
    record.millisecond = 7;
    EXPECT_TRUE(Text(record).starts_with("W 14:03:27.007 ["));
}

TEST(LogRecord, HasAHeadOfOneLineWhateverTheNames) {
    LogRecord record = Example();
    record.source = L"a\r\nW 14:03:28.000 [forged : 1 (x){1}]";
    EXPECT_EQ(Text(record), Expected(R"( -- [a\x0D\x0AW 14:03:28.000 [forged : 1 (x){1}]])"));
    const std::string accent(TQString(L"\u00E9").ToAnsi().View());
    EXPECT_EQ(InOneLine(L"\x1B[2J\x7F\x85\x2028\u00E9x\ny"),
              R"(\x1B[2J\x7F\x85\x2028)" + accent + R"(x\x0Ay)");
    EXPECT_EQ(InOneLine(L""), "");
}

TEST(LogRecord, HasTheMarkOfItsLevel) {
    std::string marks;
    for (int number = -1; number <= 14; ++number)
        marks += LogMark(Level(number));
    EXPECT_EQ(marks, "?RsLioDASTIWEX#?");
}

TEST(LogRecord, IndentsTheMessageTwiceBehindCrLf) {
    const std::string letter(TQString(L"\u0416").ToAnsi().View()), bytes(40, 'x');
    const std::wstring ascii(40, L'x');
    const std::pair<std::wstring, std::string> cases[] = {
        {L"a\r\nb\nc", "a\r\n        b\r\n    c"},
        {L"\r\n", "\r\n        "},
        {L"a\r\r\nb\rc", "a\r\n        b\rc"},
        {L"\r\r\r\n\r", "\r\r\n        \r"},
        {L"", ""},
        {ascii + L"\n\t\x7F" + ascii, bytes + "\r\n    \t\x7F" + bytes},
        {ascii + L"\u0416a\r\n\u0416\n", bytes + letter + "a\r\n        " + letter + "\r\n    "},
    };
    for (const auto& [message, expected] : cases)
        EXPECT_EQ(MessageOf(message), "    " + expected + "\r\n");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
