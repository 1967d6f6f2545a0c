#include "MonitorRun.h"
#include "core/TQEventLog.h"

#include <array>
#include <csignal>
#include <sys/stat.h>

namespace Quellan::Corvel::Test {
namespace {

TEST_F(Monitor, IsStoppedByTheSignalsThatAskForTheEnd) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    for (const int signal : {SIGTERM, SIGHUP, SIGQUIT}) {
        StartWatching();
        kill(static_cast<pid_t>(m_process->Id()), signal);
        EXPECT_THAT(m_process->ReadAll(), testing::HasSubstr("stopped"));
        EXPECT_EQ(m_process->ExitCode(), 0);
    }
}

// As scripts start what runs in the background.
TEST_F(Monitor, IsStoppedByCtrlCThoughItWasStartedToIgnoreIt) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    const auto before = std::signal(SIGINT, SIG_IGN);
    StartWatching();
    std::signal(SIGINT, before);
    m_process->Interrupt();
    EXPECT_EQ(m_process->ExitCode(), 0);
}

TEST_F(Monitor, LeavesPipesAlone) {
    ASSERT_EQ(mkfifo((Folder() + "/pipe").c_str(), 0600), 0);
    Start({"--once", Folder()});
    EXPECT_EQ(m_process->ReadAll(), "1 folders, 0 files, 0 bytes read, 0 failures\n");
}

// Under Wine entries go nowhere.
TEST_F(Monitor, HasTheStructuredExceptionInTheEventLog) {
    Start({"--once", "fault:"});
    EXPECT_EQ(m_process->ExitCode(), 1);
    const HANDLE log = OpenEventLogW(nullptr, L"Application");
    alignas(EVENTLOGRECORD) std::array<BYTE, 4096> buffer;
    DWORD read = 0, needed = 0;
    ASSERT_TRUE(ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, buffer.data(),
                              buffer.size(), &read, &needed));
    CloseEventLog(log);
    const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data());
    EXPECT_EQ(record.EventID, TQEventLog::UnhandledExceptionEvent);
    EXPECT_EQ(record.EventCategory, TQEventLog::UnhandledExceptionCategory);
    EXPECT_STREQ(reinterpret_cast<const wchar_t*>(&record + 1), TQEventLog::LibrarySource);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
