// tq log as its users run it, and the parser under it.
#include "../../tools/tq/LogHead.h"
#include "log/LogFiles.h"
#include "support/ChildProcess.h"

#include <gmock/gmock.h>

namespace Quellan::Corvel::Test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using tq::ParseLogHead;

TEST(LogHeads, MayHaveNamesWithBracketsAndColons) {
    const auto head =
        ParseLogHead("E 14:03:27.045 [a : 5 (b){6}] c : 7 (d (e) : f){8}] -- [x] -- [y] -- [z]");
    ASSERT_TRUE(head);
    EXPECT_EQ(head->application, "a : 5 (b){6}] c");
    EXPECT_EQ(head->process, 7u);
    EXPECT_EQ(head->module, "d (e) : f");
    EXPECT_EQ(head->thread, 8u);
    EXPECT_EQ(head->source, "x] -- [y");
    EXPECT_EQ(head->user, "z");
}

TEST(LogHeads, AreNotSeenInOtherLines) {
    const std::string whole = "W 14:03:27.045 [Monitor : 2316 (monitor.exe){4410}]";
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_FALSE(ParseLogHead(whole.substr(0, size))) << size;
    for (const char* line : {"    W 14:03:27.045 [A : 1 (a){2}]", "W 24:03:27.045 [A : 1 (a){2}]",
                             "W 14:60:27.045 [A : 1 (a){2}]", "W 14:03:27.45 [A : 1 (a){2}]",
                             "W 14:03:27.045 [A : x (a){2}]", "W 14:03:27.045 [A : 1 (a){4294967296}]",
                             "W 14:03:27.045 [A : 1 (a){2}] - [x]", "W 14:03:27.045 [A : 1 (a){2}] -- [x"})
        EXPECT_FALSE(ParseLogHead(line)) << line;
}

std::string Record(char mark, const char* time, const char* rest, const char* message) {
    return std::string(1, mark) + " " + time + " [App : 11 (app){22}]" + rest + "\r\n    " + message + "\r\n";
}

class LogCommand : public testing::Test {
  protected:
    std::string File(const char* name, const std::string& bytes) const {
        WriteBytes(m_folder / name, bytes);
        return (m_folder / name).string();
    }

    // What is printed, by lines.
    std::vector<std::string> Run(std::vector<std::string> arguments, int exitCode = 0) const {
        arguments.insert(arguments.begin(), "log");
        ChildProcess tq("tq", arguments, ChildProcess::Files::Piped);
        std::string text = tq.ReadAll();
        EXPECT_EQ(tq.ExitCode(), exitCode) << text;
        std::vector<std::string> lines;
        for (std::size_t end; (end = text.find('\n')) != text.npos; text.erase(0, end + 1))
            lines.push_back(text.substr(0, end));
        return lines;
    }

    const LogFolder m_folder;
    const std::string m_log =
        File("App.tlg", Record('W', "10:00:00.000", " -- [Disk] -- [ann {S-1-5-7}]", "nearly full") +
                            "W 10:00:00.001 [App : 1\r\n" +
                            Record('X', "10:00:01.500", " -- [] -- [bob {S-1-5-8}]", "first\r\n    Second") +
                            Record('?', "10:00:02.000", "", "odd"));
};

TEST_F(LogCommand, NamesLevelsAndFlagsWhatItCannotRead) {
    const std::vector<std::string> lines = Run({m_log});
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], "10:00:00.000 Warning     App 11.22 [Disk] ann {S-1-5-7}");
    EXPECT_EQ(lines[1], "    nearly full");
    EXPECT_THAT(lines[2], testing::EndsWith("App.tlg:3: no record: W 10:00:00.001 [App : 1"));
    EXPECT_EQ(lines[3], "10:00:01.500 Exception   App 11.22 bob {S-1-5-8}");
    EXPECT_EQ(lines[4], "    first");
    EXPECT_EQ(lines[5], "    Second");
    EXPECT_EQ(lines[6], "10:00:02.000 Unknown     App 11.22");
}

TEST_F(LogCommand, FiltersByEachPart) {
    const std::string plain =
        File("Plain.tlg", Record('W', "10:00:00.000", " -- [Disk] -- [ann]", "full") +
                              Record('E', "10:00:01.000", " -- [Net] -- [bob]", "gone"));
    for (const auto& [option, value] : {std::pair<const char*, const char*>{"--level", "error"},
                                        {"--level", "X,E"},
                                        {"--from", "10:00:00.001"},
                                        {"--user", "BOB"},
                                        {"--source", "ne"},
                                        {"--text", "Gone"}})
        EXPECT_THAT(Run({option, value, plain}), ElementsAre(HasSubstr(" Error "), "    gone")) << option;
    EXPECT_EQ(Run({"--to", "10:00", plain}).size(), 2u);
    EXPECT_EQ(Run({"--process", "11", "--thread", "22", plain}).size(), 4u);
    EXPECT_TRUE(Run({"--process", "12", plain}, 1).empty());
    EXPECT_TRUE(Run({"--thread", "21", plain}, 1).empty());
    EXPECT_TRUE(Run({"--to", "1999-12-31T23:59", plain}, 1).empty());
}

TEST_F(LogCommand, MergesFilesInTheOrderOfTimeOverMidnight) {
    const std::string one =
        File("One.tlg", Record('T', "23:59:59.000", "", "a") + Record('T', "00:00:01.000", "", "d"));
    const std::string two =
        File("Two.tlg", Record('T', "23:59:59.500", "", "b") + Record('T', "00:00:00.000", "", "c"));
    std::string messages;
    for (const std::string& line : Run({two, one}))
        if (line.starts_with("    ")) messages += line.substr(4);
    EXPECT_EQ(messages, "abcd");
}

TEST_F(LogCommand, WritesJson) {
    const std::vector<std::string> lines = Run({"--json", m_log});
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[0],
                HasSubstr(R"(T10:00:00.000", "level": "Warning", "mark": "W", "application": "App", )"
                          R"("process": 11, "module": "app", "thread": 22, "source": "Disk", )"
                          R"("user": "ann {S-1-5-7}", "message": "nearly full"})"));
    EXPECT_THAT(lines[1], HasSubstr(R"("line": 3, "unreadable": "W 10:00:00.001 [App : 1"})"));
    EXPECT_THAT(lines[2],
                HasSubstr(R"("source": null, "user": "bob {S-1-5-8}", "message": "first\u000aSecond"})"));
}

TEST_F(LogCommand, SendsNoControlCharactersOfOthersToATerminal) {
    const std::string log =
        File("Esc.tlg", Record('T', "10:00:00.000", " -- [a\x1b[2Jb] -- [c\x7f]", "\x1b[3J\td") +
                            "\x1b[4Jno record\r\n");
    const std::vector<std::string> piped = Run({log});
    ASSERT_EQ(piped.size(), 3u);
    EXPECT_THAT(piped[0], testing::EndsWith("[a\\x1b[2Jb] c\\x7f"));
    EXPECT_EQ(piped[1], "    \x1b[3J\td") << "what is no terminal gets the message as it is";
    const std::vector<std::string> shown = Run({log, "--color=always"});
    ASSERT_EQ(shown.size(), 3u);
    EXPECT_THAT(shown[0], testing::StartsWith("\x1b[90m10:00:00.000 Trace      \x1b[0m App"));
    EXPECT_EQ(shown[1], "    \\x1b[3J\td");
    EXPECT_THAT(shown[2], testing::EndsWith(": no record: \\x1b[4Jno record"));
}

TEST_F(LogCommand, ShowsTheBeginningOfWhatIsTooLongAndWhatStandsAround) {
    const std::string most(1 << 20, 'x');
    const std::string log =
        File("Long.tlg", Record('T', "10:00:00.000", "", (most + "12345").c_str()) + most + "1234567\r\n" +
                             Record('T', "10:00:01.000", "", "after"));
    const std::vector<std::string> lines = Run({log});
    ASSERT_EQ(lines.size(), 5u);
    // The four blanks before the message count as well.
    EXPECT_EQ(lines[1], "    " + most.substr(4) + "... and 10 bytes more");
    EXPECT_THAT(lines[2], testing::EndsWith(": no record: " + most + "... and 8 bytes more"));
    EXPECT_EQ(lines[4], "    after");
    EXPECT_THAT(Run({"--json", log})[0], testing::EndsWith("x\", \"omittedBytes\": 10}"));
}

TEST_F(LogCommand, SaysWhatIsWrong) {
    const auto said = [&](std::vector<std::string> arguments) { return Run(std::move(arguments), 2).at(0); };
    EXPECT_EQ(said({}), "tq: name at least one log file; tq log --help tells how");
    EXPECT_EQ(said({"--level", "loud", m_log}), "tq: 'loud' is no level");
    for (const std::string id : {"x", "4294967296"})
        EXPECT_EQ(said({"--process", id, m_log}), "tq: '" + id + "' is no id from 0 to 4294967295");
    EXPECT_EQ(said({"--nonsense", m_log}), "tq: '--nonsense' is no option of tq log");
    for (const char* time : {"25:00", "10:60", "10", "10:00x", "2024-13-01T10:00", "2024-01-01"})
        EXPECT_EQ(said({"--from", time, m_log}),
                  "tq: '" + std::string(time) + "' is no time; HH:MM or YYYY-MM-DDTHH:MM");
    EXPECT_THAT(Run({(m_folder / "none.tlg").string()}, 3).at(0), HasSubstr("none.tlg"));
}

TEST_F(LogCommand, FollowsALogOverItsRollover) {
    const fs::path path = m_folder / "Live.tlg";
    WriteBytes(path, Record('T', "10:00:00.000", "", "before"));
    ChildProcess tq("tq", {"log", "--follow", path.string()}, ChildProcess::Files::Piped);
    tq.ReadTo("before");
    std::ofstream(path, std::ios::binary | std::ios::app) << Record('T', "10:00:01.000", "", "appended");
    tq.ReadTo("appended");
    std::ofstream(path, std::ios::binary | std::ios::app)
        << Record('T', "10:00:02.000", "", "last of the old");
    Open(path, 1)->AddMsg(L"first of the new", TQLogLevel::Trace);
    EXPECT_TRUE(fs::exists(m_folder / "Live_bak.tlg"));
    tq.ReadTo("last of the old");
    tq.ReadTo("first of the new");
    tq.Kill();
}

}  // namespace
}  // namespace Quellan::Corvel::Test
