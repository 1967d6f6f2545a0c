// The dispatcher of a process, told what to do by a manager that the test plays.
#include "ServicesTest.h"
#include "ServicesTestProgram.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"
#include "TQLib/platform/linux/services/ServiceSocket.h"
#include "support/ChildProcess.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <optional>
#include <poll.h>
#include <sys/socket.h>

namespace Quellan::Corvel::Test {
namespace {

using namespace Quellan::Platform;
using testing::ElementsAre;

class ScriptedManager : public testing::Test {
  protected:
    ScriptedManager() { EXPECT_EQ(ListenAsServiceManager(m_path, m_listener), 0u); }

    void StartProcess(const char* role = "service", const RoleArguments& services = {"one", "two"}) {
        m_process.emplace(role, services, ChildProcess::Files::Piped);
    }
    // Takes the next connection and answers what it begins with.
    AttachMessage Accept(DWORD code = 0) {
        pollfd waiting{.fd = m_listener.Get(), .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&waiting, 1, ServiceLimitMs), 1);
        m_connection = Descriptor(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        const timeval limit = {.tv_sec = ServiceLimitMs / 1000, .tv_usec = 0};
        setsockopt(m_connection.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        AttachMessage attach;
        std::string packet;
        EXPECT_EQ(ReceivePacket(m_connection.Get(), packet), 0u);
        EXPECT_TRUE(ParseMessage(packet, attach));
        Say(ReplyMessage{code});
        return attach;
    }
    void StartAndAccept() {
        StartProcess();
        Accept();
    }
    template <class Message>
    void Say(const Message& message) {
        EXPECT_EQ(SendPacket(m_connection.Get(), FormatMessage(message)), 0u);
    }
    // Reads up to the next answer, and what is reported before it.
    DWORD ReadDone() {
        DoneMessage done;
        for (std::string packet; !ParseMessage(packet, done);)
            if (!ReadOne(packet)) return ~0u;
        return done.code;
    }
    DWORD Tell(const std::string& name, DWORD control) {
        Say(ControlMessage{name, control});
        return ReadDone();
    }
    DWORD Run(const std::string& name, std::vector<std::string> arguments = {}) {
        Say(RunMessage{name, FALSE, std::move(arguments)});
        return ReadDone();
    }
    void StartOne() {
        StartAndAccept();
        EXPECT_EQ(Run("one"), 0u);
        WaitForState("one", SERVICE_RUNNING);
    }
    void Finish() {
        Say(FinishMessage());
        EXPECT_EQ(m_process->ExitCode(), 0);
    }
    void WaitForState(const std::string& name, DWORD state) {
        for (std::string packet; m_reported[name].dwCurrentState != state;)
            if (!ReadOne(packet)) return;
    }
    void Die() { m_connection = Descriptor(); }

    const TemporaryFolder m_folder;
    const std::string m_path = std::filesystem::path(m_folder.Path()).string() + "/manager";
    const EnvironmentVariable m_manager{L"TQLIB_SERVICE_MANAGER",
                                        std::filesystem::path(m_path).wstring().c_str()};
    const EnvironmentVariable m_started{L"TQLIB_SERVICE_PROCESS", L"1"};
    Descriptor m_listener, m_connection;
    std::optional<RoleProcess> m_process;
    std::map<std::string, SERVICE_STATUS> m_reported;

  private:
    bool ReadOne(std::string& packet) {
        const DWORD code = ReceivePacket(m_connection.Get(), packet);
        EXPECT_EQ(code, 0u) << "the dispatcher has gone";
        StatusMessage status;
        if (ParseMessage(packet, status)) m_reported[status.service.name] = status.service.status;
        return code == 0;
    }
};

TEST_F(ScriptedManager, HasControlsServedInTheirOrder) {
    StartOne();
    for (const DWORD control : {DWORD{RefuseControl}, SERVICE_CONTROL_INTERROGATE, DWORD{200}})
        Say(ControlMessage{"one", control});
    EXPECT_EQ(ReadDone(), RefusalCode);
    EXPECT_EQ(ReadDone(), 0u);
    EXPECT_EQ(ReadDone(), ERROR_CALL_NOT_IMPLEMENTED);
}

TEST_F(ScriptedManager, HearsReportsBeforeTheAnswerThatCausedThem) {
    StartOne();
    EXPECT_EQ(Tell("one", SERVICE_CONTROL_PAUSE), 0u);
    EXPECT_EQ(m_reported["one"].dwCurrentState, SERVICE_PAUSED);
}

TEST_F(ScriptedManager, IsToldWhatCannotBeDone) {
    StartAndAccept();
    EXPECT_EQ(Run("three"), ERROR_SERVICE_NOT_IN_EXE);
    EXPECT_EQ(Tell("one", SERVICE_CONTROL_STOP), ERROR_SERVICE_NOT_ACTIVE);
    EXPECT_EQ(Run("one"), 0u);
    EXPECT_EQ(Run("one"), ERROR_SERVICE_ALREADY_RUNNING);
}

TEST_F(ScriptedManager, MayRefuseAProcess) {
    StartProcess();
    Accept(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    EXPECT_EQ(m_process->ExitCode(), 63);
}

TEST_F(ScriptedManager, IsToldAllStatesWhenItComesBack) {
    StartOne();
    EXPECT_EQ(Tell("one", SERVICE_CONTROL_PAUSE), 0u);
    Die();
    Accept(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);  // the dispatcher tries again
    const AttachMessage again = Accept();
    ASSERT_EQ(again.services.size(), 1u) << "the other one was never started";
    EXPECT_EQ(again.services[0].name, "one");
    EXPECT_EQ(again.services[0].status.dwCurrentState, SERVICE_PAUSED);
    EXPECT_EQ(Tell("one", SERVICE_CONTROL_CONTINUE), 0u);
}

TEST_F(ScriptedManager, IsAskedEverLaterByAProcessThatItRefuses) {
    constexpr int Refusals = 8, LongerThanFromADeadOneMs = 1500;
    StartAndAccept();
    EXPECT_EQ(Run("one"), 0u);
    Die();
    for (int i = 0; i < Refusals; ++i)
        Accept(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
    pollfd waiting{.fd = m_listener.Get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&waiting, 1, LongerThanFromADeadOneMs), 0);
    Die();
    EXPECT_EQ(Accept().services.at(0).name, "one");
}

TEST_F(ScriptedManager, HearsOfAnEndThatCameWithoutIt) {
    const EnvironmentVariable root(L"TQLIB_ROOT", m_folder.Path().c_str());
    StartOne();
    EXPECT_EQ(Tell("one", StopByFileControl), 0u);
    Die();
    const std::filesystem::path stop = std::filesystem::path(m_folder.Path()) / StopFile;
    std::ofstream(stop).put('x');
    EXPECT_TRUE(Eventually([&] { return !std::filesystem::exists(stop); }));
    AttachMessage again = Accept();
    while (again.services.at(0).status.dwCurrentState != SERVICE_STOPPED)
        again.services.at(0).status = (WaitForState("one", SERVICE_STOPPED), m_reported["one"]);
    EXPECT_EQ(again.services[0].status.dwWin32ExitCode, FailureCode);
    Finish();
}

TEST_F(ScriptedManager, IsLeftWhenItTalksNonsense) {
    StartOne();
    for (const std::string& nonsense :
         {std::string("x"), std::string("\x61\0\0\0\xFF\xFF\xFF\xFF", 8), FormatMessage(QueryStatusMessage()),
          std::string(1000, '\xFF'), FormatMessage(ControlMessage{"one", 1}) + "more"}) {
        EXPECT_EQ(SendPacket(m_connection.Get(), nonsense), 0u);
        EXPECT_EQ(Accept().services.at(0).status.dwCurrentState, SERVICE_RUNNING);
    }
    EXPECT_EQ(Tell("one", SERVICE_CONTROL_INTERROGATE), 0u);
}

TEST_F(ScriptedManager, CannotEndTheDispatcherBeforeItsServices) {
    StartOne();
    Say(FinishMessage());
    EXPECT_EQ(Accept().services.at(0).status.dwCurrentState, SERVICE_RUNNING);
    EXPECT_EQ(Tell("one", SERVICE_CONTROL_STOP), 0u);
    WaitForState("one", SERVICE_STOPPED);
    Finish();
}

// Reports more than any socket holds, then says so on its standard output.
constexpr DWORD ManyReports = 20'000;
void Chatter(DWORD, wchar_t** arguments) {
    const SERVICE_STATUS_HANDLE handle = RegisterServiceCtrlHandlerW(arguments[0], [](DWORD) {});
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, SERVICE_START_PENDING, 0, 0, 0, 0, 0};
    for (status.dwCheckPoint = 1; status.dwCheckPoint < ManyReports; ++status.dwCheckPoint)
        SetServiceStatus(handle, &status);
    status.dwCurrentState = SERVICE_RUNNING;
    SetServiceStatus(handle, &status);
    puts("reported");
    fflush(stdout);
}
const Role g_chatter("chatter", [](const RoleArguments&) { return ServeAll({"one"}, Chatter) ? 0 : 1; });

TEST_F(ScriptedManager, KeepsNoServiceWaitingThatReports) {
    StartProcess("chatter", {});
    Accept();
    Say(RunMessage{"one", FALSE, {}});
    m_process->ReadTo("reported");
    DWORD last = 0;
    while (m_reported["one"].dwCurrentState != SERVICE_RUNNING && !HasFailure()) {
        WaitForState("one", m_reported["one"].dwCurrentState == 0 ? SERVICE_START_PENDING : SERVICE_RUNNING);
        EXPECT_GE(m_reported["one"].dwCheckPoint, last);
        last = m_reported["one"].dwCheckPoint;
    }
    EXPECT_EQ(last, ManyReports) << "the last report is not lost";
}

// What is checked before anything is said.
void TryStatusCalls(DWORD, wchar_t** arguments) {
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING, 0, 0, 0, 0, 0};
    const auto codeOf = [&](SERVICE_STATUS_HANDLE handle) {
        return CodeOf(SetServiceStatus(handle, &status));
    };
    EXPECT_EQ(CodeOf(RegisterServiceCtrlHandlerW(L"other", [](DWORD) {})), ERROR_SERVICE_DOES_NOT_EXIST);
    const SERVICE_STATUS_HANDLE handle = RegisterServiceCtrlHandlerW(arguments[0], [](DWORD) {});
    EXPECT_EQ(codeOf(nullptr), ERROR_INVALID_HANDLE);
    for (const SERVICE_STATUS& bad :
         {SERVICE_STATUS{SERVICE_WIN32_OWN_PROCESS, 8, 0, 0, 0, 0, 0},
          SERVICE_STATUS{SERVICE_WIN32_OWN_PROCESS, 0, 0, 0, 0, 0, 0},
          SERVICE_STATUS{0, SERVICE_RUNNING, 0, 0, 0, 0, 0},
          SERVICE_STATUS{SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING, ~0u, 0, 0, 0, 0}}) {
        status = bad;
        EXPECT_EQ(codeOf(handle), ERROR_INVALID_DATA);
    }
    status = {SERVICE_WIN32_OWN_PROCESS, SERVICE_STOPPED, 0, 0, 0, 0, 0};
    status.dwWin32ExitCode = testing::Test::HasFailure();
    EXPECT_EQ(codeOf(handle), 0u);
    if (codeOf(handle) != ERROR_INVALID_HANDLE) std::abort();
}
const Role g_statusCalls("status-calls", [](const RoleArguments&) {
    return ServeAll({"one"}, TryStatusCalls) && !ServeAll({"one"}, TryStatusCalls) && GetLastError() == 1056
               ? 0
               : 1;
});

// Its main function returns, and nobody can report any more.
TEST_F(ScriptedManager, HearsOfAServiceThatNeverSaidAnything) {
    StartProcess("leaving", {});
    Accept();
    for (int run = 0; run < 2; ++run) {
        m_reported.clear();
        EXPECT_EQ(Run("one"), 0u);
        WaitForState("one", SERVICE_STOPPED);
        EXPECT_EQ(m_reported["one"].dwWin32ExitCode, ERROR_PROCESS_ABORTED);
    }
    Finish();
}

TEST_F(ScriptedManager, HearsNothingThatIsNoStatus) {
    StartProcess("status-calls", {});
    Accept();
    EXPECT_EQ(Run("one"), 0u);
    WaitForState("one", SERVICE_STOPPED);
    EXPECT_EQ(m_reported["one"].dwWin32ExitCode, 0u);
    Finish();
}

}  // namespace
}  // namespace Quellan::Corvel::Test
