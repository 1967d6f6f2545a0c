#include "MonitorRun.h"

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST_F(Monitor, BreaksOffItsOnlyCheckAtCtrlCAndTellsTheResult) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    WriteFile("endless", "");
    std::filesystem::resize_file(Folder() + "/endless", std::uintmax_t{1} << 42);
    Start({"--once", Folder()});
    ReadTo("owner of");
    m_process->Interrupt();
    EXPECT_THAT(m_process->ReadAll(), testing::HasSubstr("0 failures\n"));
    EXPECT_EQ(m_process->ExitCode(), 0);
}

TEST_F(Monitor, TellsFailuresInTheLanguageOfItsUser) {
    const char* const before = getenv("LC_ALL");
    const std::string kept = before ? before : "";
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    Start({"--once", Folder() + "/missing"});
    before ? setenv("LC_ALL", kept.c_str(), 1) : unsetenv("LC_ALL");
    const std::string output = m_process->ReadAll();
    EXPECT_THAT(output, testing::HasSubstr("Das Ziel ist nicht zu finden. ("));
    EXPECT_THAT(output, testing::HasSubstr("Caused by: GetFileAttributesExW ("));
    EXPECT_THAT(ReadBytes(m_logFile), testing::HasSubstr("The target cannot be found. ("));
}

TEST_F(Monitor, LeavesPipesAlone) {
    ASSERT_EQ(mkfifo((Folder() + "/pipe").c_str(), 0600), 0);
    Start({"--once", Folder()});
    EXPECT_THAT(m_process->ReadAll(), testing::EndsWith("1 folders, 0 files, 0 bytes read, 0 failures\n"));
}

TEST_F(Monitor, ChecksThousandsOfTargets) {
    std::vector<std::string> arguments{"--once"};
    for (int i = 0; i < 3'000; ++i) {
        const std::string name = std::to_string(i);
        WriteFile(name.c_str(), "12345");
        arguments.push_back(Folder() + "/" + name);
    }
    Start(arguments);
    EXPECT_THAT(m_process->ReadAll(),
                testing::EndsWith("0 folders, 3000 files, 15000 bytes read, 0 failures\n"));
}

TEST_F(Monitor, SaysWhenAnOwnerChanged) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    StartWatching();
    ASSERT_EQ(chown(Folder().c_str(), 12'345, 0), 0);
    EXPECT_THAT(ReadTo("changed from"), testing::EndsWith("-25690\n")) << "2 * 12345 + 1000";
    EXPECT_EQ(Stop(), 0);
}

// A lease on the file lets others wait when they open it.
TEST_F(Monitor, IsNotHeldUpByATargetThatTakesLong) {
    WriteFile("slow", "12345");
    const std::string slow = Folder() + "/slow";
    const TemporaryFolder other;
    const std::filesystem::path otherPath(other.Path());
    const int file = open(slow.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(fcntl(file, F_SETSIG, SIGURG), 0);  // ignored
    if (fcntl(file, F_SETLEASE, F_WRLCK) != 0) {
        close(file);
        GTEST_SKIP() << "no leases there";
    }
    Start({"--interval", Interval, slow, "--group", otherPath.string()});
    EXPECT_THAT(ReadTo("watching"), testing::HasSubstr("\ngroup 2 ("));
    std::ofstream(otherPath / "new") << "";
    ReadTo("added");
    close(file);
    EXPECT_THAT(ReadTo("watching"),
                testing::HasSubstr("group 1 (" + slow + "): 1 checks, 0 folders, 1 files"));
    EXPECT_EQ(Stop(), 0);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
