#include "MonitorRun.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/security/SecID.h"
#include "TQLib/system/TQSysProc.h"
#include "support/ReadBytes.h"

namespace Quellan::Corvel::Test {
namespace {

using testing::HasSubstr;
using testing::Not;

TEST_F(Monitor, NamesTheOwnersAndEndsAfterTheFirstCheckOnDemand) {
    const std::string user = std::filesystem::path(TQSysProc::CurrentUser().FullName().c_str()).string();
    WriteFile("file", "12345");
    Start({"--once", Folder()});
    EXPECT_THAT(m_process->ReadAll(),
                testing::AllOf(testing::StartsWith("monitor runs as " + user + "\nowner of " + Folder() +
                                                   " is " + user + "\n"),
                               testing::EndsWith("1 folders, 1 files, 5 bytes read, 0 failures\n")));
    EXPECT_EQ(m_process->ExitCode(), 0);
}

TEST_F(Monitor, TellsWhoseListLetsStrangersWriteAndTakesThatAwayOnDemand) {
    Start({"--once", Folder()});
    EXPECT_THAT(m_process->ReadAll(), Not(HasSubstr("strangers")));
    EXPECT_EQ(m_process->ExitCode(), 0);
    const Sarvek::SecDesc open =
        Sarvek::SecDesc().SetDACL(Sarvek::SecACL()
                                      .Allow(TQSysProc::CurrentUser(), FILE_ALL_ACCESS)
                                      .Allow(Sarvek::SecID(WinWorldSid), FILE_ALL_ACCESS)
                                      .Allow(Sarvek::SecID(WinBuiltinUsersSid), FILE_GENERIC_WRITE));
    ASSERT_TRUE(SetFileSecurityW(m_folder.Path().c_str(), DACL_SECURITY_INFORMATION, open.Block().Data()));
    for (const bool isToFix : {false, true}) {
        Start(isToFix ? std::vector<std::string>{"--once", "--fix", Folder()}
                      : std::vector<std::string>{"--once", Folder()});
        const std::string told = m_process->ReadAll();
        EXPECT_THAT(told, HasSubstr(Folder() + " lets strangers write\n"));
        EXPECT_EQ(told.find("list of " + Folder() + " changed:\n") != std::string::npos, isToFix) << told;
        EXPECT_EQ(m_process->ExitCode(), isToFix ? 0 : 1);
    }
    Start({"--once", Folder()});
    EXPECT_THAT(m_process->ReadAll(), Not(HasSubstr("strangers")));
    EXPECT_EQ(m_process->ExitCode(), 0);
}

TEST_F(Monitor, RefusesAWrongCommandLine) {
    std::vector<std::string> manyGroups{"--once", "."};
    for (int group = 2; group <= 17; ++group)
        manyGroups.insert(manyGroups.end(), {"--group", "."});
    for (const std::vector<std::string>& line :
         {{}, {"--once"}, {"--twice", "."}, {"--interval", "0", "."}, {".", "--group"}, manyGroups}) {
        Start(line);
        EXPECT_THAT(m_process->ReadAll(), HasSubstr("usage: monitor"));
        EXPECT_EQ(m_process->ExitCode(), 2);
    }
}

TEST_F(Monitor, NamesWhatIsAddedChangedAndRemoved) {
    WriteFile("old", "old");
    StartWatching();
    WriteFile("new", "");
    EXPECT_THAT(ReadTo("added"), HasSubstr("new"));
    WriteFile("old", "longer");
    EXPECT_THAT(ReadTo("changed"), HasSubstr("old"));
    RemoveFile("new");
    EXPECT_THAT(ReadTo("removed"), HasSubstr("new"));
    EXPECT_EQ(Stop(), 0);
}

TEST_F(Monitor, KeepsALogOfWhatItTells) {
    StartWatching({Folder() + "/missing"});
    WriteFile("new", "");
    ReadTo("added");
    EXPECT_EQ(Stop(), 1);
    const std::string log = ReadBytes(m_logFile);
    EXPECT_THAT(log, testing::StartsWith("S "));
    EXPECT_THAT(log, HasSubstr("] -- [monitor] -- ["));
    EXPECT_THAT(log, HasSubstr(" -- [" + Folder() + "] -- ["));
    EXPECT_THAT(log, HasSubstr("}]\r\n    added " + Folder()));
    EXPECT_THAT(log, HasSubstr("\r\nE "));
    EXPECT_THAT(log, HasSubstr("The target cannot be found. ("));
    EXPECT_THAT(log, HasSubstr("Action=" + Folder() + "/missing in Target::CheckTarget\r\n"));
    EXPECT_THAT(log, testing::ContainsRegex("    Caused by: GetFileAttributesExW .*\\[0x00000002\\]"));
}

TEST_F(Monitor, ReportsAFailureOnceAsLongAsItLasts) {
    StartWatching({Folder() + "/missing"});
    // Each of these changes takes a check of its own; the last may not be over yet.
    for (const char* name : {"one", "two", "three"}) {
        WriteFile(name, "");
        ReadTo("added");
    }
    Command("report");
    EXPECT_THAT(ReadTo("group 1"), testing::AnyOf(HasSubstr(" 2 changes, 1 failures, watching"),
                                                  HasSubstr(" 3 changes, 1 failures, watching")));
    EXPECT_EQ(Stop(), 1);
}

TEST_F(Monitor, RestsBetweenPauseAndResume) {
    StartWatching();
    Command("pause");
    ReadTo("group 1 paused");
    WriteFile("new", "");
    Sleep(SeveralIntervalsMs);
    Command("report");
    EXPECT_THAT(ReadTo("paused"), Not(HasSubstr("added")));
    Command("resume");
    ReadTo("added");
    EXPECT_EQ(Stop(), 0);
}

TEST_F(Monitor, GoesOnWithoutAGroupThatRaisesAStructuredException) {
    StartWatching({"--group", "fault:"});
    Command("report");
    EXPECT_THAT(ReadTo("ended with 0xC0000005"), HasSubstr("group 2"));
    WriteFile("new", "");
    ReadTo("added");
    EXPECT_EQ(Stop(), 1);
}

TEST_F(Monitor, GoesOnWithoutATargetWhoseCheckRaisesAStructuredException) {
    Start({"--interval", Interval, "fault:check", Folder()});
    EXPECT_THAT(ReadTo("watching"), HasSubstr("check of fault:check ended with 0xC0000005"));
    WriteFile("new", "");
    EXPECT_THAT(ReadTo("added"), Not(HasSubstr("fault:check"))) << "checked again";
    EXPECT_EQ(Stop(), 1);
}

TEST_F(Monitor, ReportsHowItsPoolIs) {
    StartWatching();
    Command("report");
    EXPECT_THAT(ReadTo("queued"), testing::AllOf(HasSubstr("pool: "), HasSubstr(" waiting, ")));
    EXPECT_EQ(Stop(), 0);
}

TEST_F(Monitor, GoesOnAfterTheEndOfItsInput) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    StartWatching();
    m_process->CloseInput();
    WriteFile("new", "");
    ReadTo("added");
    m_process->Interrupt();
    EXPECT_EQ(m_process->ExitCode(), 0);
}

// Its input is still open: nothing waits for it.
TEST_F(Monitor, IsStoppedByCtrlCAndTellsTheResult) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    WriteFile("file", "12345");
    StartWatching();
    m_process->Interrupt();
    EXPECT_THAT(ReadTo("stopped"), HasSubstr("group 1"));
    EXPECT_THAT(m_process->ReadAll(),
                testing::AllOf(HasSubstr("1 folders, 1 files, 5 bytes read, 0 failures\n"),
                               testing::EndsWith("\nmonitor: stopped\n")));
    EXPECT_EQ(m_process->ExitCode(), 0);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
