// The service program as a unit of systemd, whose place a program takes that follows its rules.
#include "TQLib/core/TQException.h"
#include "TQLib/services/internal/SystemdUnit.h"
#include "TQLib/text/TQStringArray.h"
#include "TestNames.h"
#include "TestService.h"
#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"
#include "support/FailCall.h"
#include "support/ReadBytes.h"
#include "support/Worker.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>
#include <unistd.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::HasSubstr;
using testing::Not;

namespace {

// What a command prints, and whether it ends with 0.
bool Succeeds(const std::string& command, std::string& output) {
    FILE* const pipe = popen((command + " 2>&1").c_str(), "r");
    char bytes[256];
    while (const std::size_t size = fread(bytes, 1, sizeof bytes, pipe))
        output.append(bytes, size);
    return pclose(pipe) == 0;
}

bool IsThere(const char* tool) {
    std::string path;
    return Succeeds(std::string("command -v ") + tool, path);
}

class UnderSystemd : public testing::Test {
  protected:
    // The unit that the program itself writes, with other time-outs, by a clock that is so much faster. By default
    // no limit comes into its way.
    void Run(const std::string& mode, const std::string& settings = {}, const std::string& speed = "20") {
        const std::filesystem::path file = std::filesystem::path(m_folder.Path()) / "test.service";
        ChildProcess install("services_test_program", {"install", "--systemd=" + file.string(), mode},
                             ChildProcess::Files::Piped);
        EXPECT_EQ(install.ExitCode(), 0);
        std::ofstream(file, std::ios::app) << "[Service]\n" << (settings.empty() ? Generous : settings);
        m_systemd.emplace("systemd_standin", std::vector<std::string>{file.string(), speed},
                          ChildProcess::Files::Piped);
    }
    std::string ReadTo(const std::string& line) { return m_systemd->ReadTo(line); }
    void Tell(const std::string& command) { m_systemd->Write(command + "\n"); }
    // The rest of what happens.
    std::string End(int exitCode) {
        const std::string all = m_systemd->ReadAll();
        EXPECT_EQ(m_systemd->ExitCode(), exitCode) << all;
        return all;
    }

    static constexpr const char* Generous = "WatchdogSec=0\nTimeoutStartSec=2000\nTimeoutStopSec=2000\n";
    const TemporaryFolder m_folder;
    std::optional<ChildProcess> m_systemd;
};

TEST_F(UnderSystemd, StartsLoadsAnewAndStopsInOrder) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    Run("well", "\n", "1");
    std::string all = ReadTo("unit: running");
    Tell("reload");
    all += ReadTo("unit: reload");
    all += ReadTo("unit: running");
    Tell("stop");
    all += End(0);
    EXPECT_THAT(all, HasSubstr("status: TQTestFirst stopped, TQTestSecond stopped\n"));
    EXPECT_THAT(all, HasSubstr("process: ended with status 0\nunit: dead\n"));
    for (const char* complaint : {"wrong:", "unknown:", "ignored:", "time-out"})
        EXPECT_THAT(all, Not(HasSubstr(complaint)));
}

TEST_F(UnderSystemd, IsStartedAgainWhenItsWorkFails) {
    Run("denied");
    const std::string all = ReadTo("unit: auto-restart");
    EXPECT_THAT(all, HasSubstr("TQTestFirst stopped (error 5)"));
    EXPECT_THAT(all, HasSubstr("errno: 13\n"));
    EXPECT_THAT(all, HasSubstr("process: ended with status 1\nunit: failed (exit-code)\n"));
    ReadTo("unit: start");
}

// The unit is one.
TEST_F(UnderSystemd, EndsAsFailedWhereOneOfItsServicesFails) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    Run("fail-on-reload");
    ReadTo("unit: running");
    Tell("reload");
    const std::string all = ReadTo("unit: auto-restart");
    EXPECT_THAT(all, HasSubstr("unit: stop-sigterm (by itself)\n"));
    EXPECT_THAT(all, HasSubstr("status: TQTestFirst stopped (error 1234), TQTestSecond stopped\n"));
    EXPECT_THAT(all, HasSubstr("process: ended with status 1\nunit: failed (exit-code)\n"));
    ReadTo("unit: running");
    Tell("stop");
    EXPECT_THAT(End(0), HasSubstr("process: ended with status 0\nunit: dead\n"));
}

// The stand-in understands the words as they are said there.
TEST_F(UnderSystemd, UnderstandsSystemdNotify) {
    if (!IsThere("systemd-notify")) GTEST_SKIP() << "systemd-notify is not installed: not compared with it";
    if (geteuid() != 0) GTEST_SKIP() << "only root may speak for another process";
    const std::filesystem::path folder(m_folder.Path()), script = folder / "script",
                                                         file = folder / "test.service";
    std::ofstream(script) << "trap 'systemd-notify STOPPING=1 ERRNO=5; kill $! 2>/dev/null; exit 0' TERM\n"
                             "systemd-notify --ready --pid=$$ --status='works, as it says' WATCHDOG=1\n"
                             "sleep 1000 & wait\n";
    std::ofstream(file) << "[Service]\nType=notify\nNotifyAccess=main\nKillMode=mixed\nExecStart=/bin/sh "
                        << script.string() << '\n'
                        << Generous;
    m_systemd.emplace("systemd_standin", std::vector<std::string>{file.string(), "20"},
                      ChildProcess::Files::Piped);
    std::string all = ReadTo("status: works, as it says");
    EXPECT_THAT(all, HasSubstr("unit: running\n"));
    Tell("stop");
    all += End(0);
    EXPECT_THAT(all, HasSubstr("errno: 5\nprocess: ended with status 0\nunit: dead\n"));
    for (const char* complaint : {"wrong:", "unknown:", "ignored:"})
        EXPECT_THAT(all, Not(HasSubstr(complaint)));
}

// It would run into the time-out again and again.
TEST_F(UnderSystemd, GetsTheTimeForALongStart) {
    Run("slow", "WatchdogSec=0\nTimeoutStartSec=20\n");
    ReadTo("unit: running");
}

TEST_F(UnderSystemd, IsKilledWhereItHangs) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    Run("hang", "WatchdogSec=0\nTimeoutStopSec=5\n", "5");
    ReadTo("unit: running");
    Tell("stop");
    EXPECT_THAT(End(1), HasSubstr("time-out\nunit: stop-sigkill\nprocess: ended by signal 9\n"
                                  "unit: failed (timeout)\n"));
}

// All that the threads of a process have slept so far.
std::size_t CountSleeps(const std::string& process) {
    std::size_t sleeps = 0;
    const std::string word = "\nvoluntary_ctxt_switches:\t";
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
        const std::string text = ReadBytes(thread.path() / "status");
        sleeps += std::stoul(text.substr(text.find(word) + word.size()));
    }
    return sleeps;
}

TEST_F(UnderSystemd, SleepsWhileItHasNothingToDo) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "the sanitizer's own thread does not sleep";
    Run("well");
    const std::string all = ReadTo("unit: running"), word = "process: ";
    const std::string process = all.substr(all.find(word) + word.size());
    const std::string id = process.substr(0, process.find('\n'));
    // It comes to rest at some time, and would wake each second otherwise.
    std::size_t before = 0, after = 1;
    for (int i = 0; i < 10 && before != after; ++i) {
        before = CountSleeps(id);
        Sleep(TQService::ProgressMs + NeverMs);
        after = CountSleeps(id);
    }
    EXPECT_EQ(before, after);
}

class Unit : public testing::Test {
  protected:
    std::string Write(const TQStringArray& arguments = {}) {
        WriteSystemdUnit({&service, &second}, arguments, TQString(m_file.wstring().c_str()));
        EXPECT_FALSE(std::filesystem::exists(m_file.string() + ".new"));
        return ReadBytes(m_file);
    }

    struct Described : TestService {
        TQServiceOptions options;
        using TestService::TestService;
        TQServiceOptions Options() const override { return options; }
    } service, second{L"Second"};
    const TemporaryFolder m_folder;
    const std::filesystem::path m_file = std::filesystem::path(m_folder.Path()) / "test.service";
};

struct Name {
    const wchar_t* service;
    const char* unit;
};
constexpr Name Names[] = {{L"Event Log", "Event\\x20Log.service"},
                          {L"My Svc 100%", "My\\x20Svc\\x20100\\x25.service"},
                          {L".hidden", "\\x2ehidden.service"},
                          {L"a.b_c:1", "a.b_c:1.service"},
                          {L"x@y", "x\\x40y.service"},
                          {L"\u00e4", "\\xc3\\xa4.service"},
                          {L"a-b", "a-b.service"}};

TEST_F(Unit, NamesOthersAsSystemdDoes) {
    std::string expected;
    for (const Name& name : Names) {
        service.options.dependencies.Add(name.service);
        expected += std::string("Requires=") + name.unit + "\nAfter=" + name.unit + '\n';
    }
    service.options.dependencies.Add(L"second");
    second.options.dependencies.Add(L"a-b");
    second.options.dependencies.Add(L"Last");
    EXPECT_THAT(Write(), HasSubstr(expected + "Requires=Last.service\nAfter=Last.service\n\n[Service]"));
    if (!IsThere("systemd-escape")) GTEST_SKIP() << "systemd-escape is not installed: not compared with it";
    for (const Name& name : Names) {
        const bool hasHyphen = std::wstring_view(name.service).find(L'-') != std::wstring_view::npos;
        std::string unit;
        EXPECT_TRUE(Succeeds(std::string("LC_ALL=C.UTF-8 systemd-escape ") +
                                 (hasHyphen ? "--mangle" : "--suffix=service") + " '" +
                                 TQString(name.service).ToUtf8().c_str() + "'",
                             unit));
        EXPECT_EQ(unit, std::string(name.unit) + '\n');
    }
}

TEST_F(Unit, HandsTheProgramItsArgumentsAsTheyAre) {
    service.options.description = L"ends with \\";
    service.options.failureActions = {{TQSvcFailureAction::Kind::Restart, 1'500}};
    const std::string text = Write({L"", L"with blanks", L"a\"quote", L"back\\", L"100%", L"$HOME", L"a\nb"});
    EXPECT_THAT(text, HasSubstr(R"( "" "with blanks" "a\"quote" "back\\" "100%%" "$$HOME" "a\x0ab")"
                                "\n"));
    if (!IsThere("systemd-analyze")) GTEST_SKIP() << "systemd-analyze is not installed: not verified by it";
    std::string complaints;
    EXPECT_TRUE(Succeeds("systemd-analyze verify --man=no " + m_file.string(), complaints)) << complaints;
    EXPECT_THAT(complaints, Not(HasSubstr("test.service:"))) << text;
}

TEST_F(Unit, StaysAsItIsWhereTheNewOneCannotBeWritten) {
    const std::string before = Write();
    const std::filesystem::path missing = std::filesystem::path(m_folder.Path()) / "no" / "folder";
    EXPECT_THROW(WriteSystemdUnit({&service}, {}, TQString(missing.wstring().c_str())), TQSysException);
    const FailCall fail("WriteFile", ERROR_DISK_FULL);
    EXPECT_THROW(Write({L"other"}), TQSysException);
    EXPECT_EQ(ReadBytes(m_file), before);
    EXPECT_FALSE(std::filesystem::exists(m_file.string() + ".new"));
}

}  // namespace
