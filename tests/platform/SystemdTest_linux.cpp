// Services that systemd has started, which the test plays.
#include "ServicesTest.h"
#include "ServicesTestProgram.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "support/ChildProcess.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Quellan::Corvel::Test {
namespace {

using Platform::Descriptor;
using testing::HasSubstr;
using testing::Not;

class Systemd : public testing::Test {
  protected:
    void Listen(const std::string& name) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name[0] == '@') address.sun_path[0] = '\0';
        m_socket = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
                  0);
        m_variable.emplace(L"NOTIFY_SOCKET", std::filesystem::path(name).wstring().c_str());
    }
    void Start(const char* role, const RoleArguments& services = {}) {
        m_process.emplace(role, services, ChildProcess::Files::Piped);
    }
    // The next message; none within the time.
    std::optional<std::string> Read(int ms = ServiceLimitMs) {
        pollfd waiting{.fd = m_socket.Get(), .events = POLLIN, .revents = 0};
        if (poll(&waiting, 1, ms) != 1) return std::nullopt;
        char buffer[4096];
        const ssize_t size = recv(m_socket.Get(), buffer, sizeof buffer, 0);
        return std::string(buffer, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    }
    // All messages up to the one with that line in it, with line ends between them.
    std::string ReadTo(const std::string& line) {
        std::string all = "\n";
        while (all.find('\n' + line + '\n') == all.npos) {
            const auto message = Read();
            if (!message) {
                ADD_FAILURE() << "no " << line << " in:" << all;
                break;
            }
            all += *message + '\n';
        }
        return all;
    }
    void Signal(int signal) { kill(static_cast<pid_t>(m_process->Id()), signal); }

    static constexpr int ServiceLimitMs = 20'000;
    const TemporaryFolder m_folder;
    Descriptor m_socket;
    std::optional<EnvironmentVariable> m_variable;
    std::optional<RoleProcess> m_process;
};

TEST_F(Systemd, IsReachedByAnAbstractName) {
    if (!ChildProcess::CanInterrupt()) GTEST_SKIP() << "signals from outside come late";
    Listen("@tqlib-test-" + std::to_string(GetCurrentProcessId()));
    Start("service");
    ReadTo("READY=1");
    Signal(SIGINT);
    EXPECT_EQ(m_process->ExitCode(), 0);
}

// Takes until the end of its input to stop, and answers so many signs of the watchdog.
constexpr DWORD AnsweredSigns = 3;
HANDLE g_stop;
SERVICE_STATUS_HANDLE g_handle;
void Report(DWORD state, DWORD waitHint) {
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, 0, 0, 1, waitHint};
    SetServiceStatus(g_handle, &status);
}
void HandleSlowly(DWORD control) {
    static DWORD signs = 0;
    if (control == SERVICE_CONTROL_STOP) SetEvent(g_stop);
    if (control != SERVICE_CONTROL_INTERROGATE || ++signs < AnsweredSigns) return;
    puts("hangs");
    fflush(stdout);
    Sleep(INFINITE);
}
void StopSlowly(DWORD, wchar_t** arguments) {
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    g_handle = RegisterServiceCtrlHandlerW(arguments[0], HandleSlowly);
    Report(SERVICE_RUNNING, 0);
    WaitForSingleObject(g_stop, INFINITE);
    Report(SERVICE_STOP_PENDING, 7000);
    getchar();  // until its input ends
    Report(SERVICE_STOPPED, 0);
}
const Role g_slow("slow", [](const RoleArguments&) { return ServeAll({"slow"}, StopSlowly) ? 0 : 1; });

TEST_F(Systemd, HearsFromTheWatchdogOnlyWhileHandlersAnswer) {
    constexpr int LimitMs = 100;
    const EnvironmentVariable limit(L"WATCHDOG_USEC", std::to_wstring(LimitMs * 1000).c_str());
    Listen(std::filesystem::path(m_folder.Path()).string() + "/notify");
    Start("slow");
    m_process->ReadTo("hangs");
    DWORD signs = 0;
    while (const auto message = Read(0))
        signs += *message == "WATCHDOG=1";
    EXPECT_GE(signs, AnsweredSigns - 1);
    EXPECT_FALSE(Read(2 * LimitMs));
}

// One service hangs in its start, until its input ends; the other has much to say meanwhile.
constexpr int SystemdReports = 20;
void Hang(DWORD, wchar_t** arguments) {
    g_handle = RegisterServiceCtrlHandlerW(arguments[0], [](DWORD) {});
    Report(SERVICE_START_PENDING, 7000);
    SetEvent(g_stop);
    getchar();  // until its input ends
    Report(SERVICE_STOPPED, 0);
}
void ReportOften(DWORD, wchar_t** arguments) {
    const SERVICE_STATUS_HANDLE handle = RegisterServiceCtrlHandlerW(arguments[0], [](DWORD) {});
    SERVICE_STATUS status{SERVICE_WIN32_SHARE_PROCESS, SERVICE_RUNNING, 0, 0, 0, 0, 0};
    WaitForSingleObject(g_stop, INFINITE);
    for (int i = 0; i < SystemdReports; ++i) {
        Sleep(1);
        status.dwCurrentState = i % 2 ? SERVICE_RUNNING : SERVICE_PAUSED;
        SetServiceStatus(handle, &status);
    }
    status.dwCurrentState = SERVICE_STOPPED;
    SetServiceStatus(handle, &status);
}
int RunNeighbours(const RoleArguments&) {
    wchar_t hung[] = L"hung", chatty[] = L"chatty";
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const SERVICE_TABLE_ENTRYW table[] = {{hung, Hang}, {chatty, ReportOften}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
const Role g_neighbours("neighbours", RunNeighbours);

TEST_F(Systemd, GivesNoTimeToWhoHangsForWhatOthersReport) {
    Listen(std::filesystem::path(m_folder.Path()).string() + "/notify");
    Start("neighbours");
    ReadTo("EXTEND_TIMEOUT_USEC=7000000");
    EXPECT_THAT(ReadTo("STATUS=hung starting, chatty stopped"), Not(HasSubstr("EXTEND")));
    m_process->CloseInput();
    EXPECT_EQ(m_process->ExitCode(), 0);
}

// It has no way to say anything more.
void Leave(DWORD, wchar_t**) {}
const Role g_leaving("leaving", [](const RoleArguments&) { return ServeAll({"one"}, Leave) ? 0 : 1; });

TEST_F(Systemd, IsToldOfAServiceThatNeverSaidAnything) {
    Listen(std::filesystem::path(m_folder.Path()).string() + "/notify");
    Start("leaving");
    EXPECT_THAT(ReadTo("STATUS=one stopped (error 1067)"), HasSubstr("\nSTOPPING=1\n"));
    EXPECT_EQ(m_process->ExitCode(), 0);
}

// The same programs that a manager has to bear, as units of what follows systemd's rules.
struct UnitEnd {
    const char* does;
    bool stops;  // it is told to, once it runs
    const char* end;
};

TEST(SystemdUnits, EndWhateverTheirServicesDo) {
    constexpr const char *Hung = "process: ended by signal 9\nunit: failed (timeout)\n",
                         *Failed = "unit: failed (exit-code)\n";
    const UnitEnd rows[] = {
        {"never-registers", false, Hung},       {"exits-in-start", false, Failed},
        {"hangs-in-start", false, Hung},        {"repeats-its-start", false, Hung},
        {"starts-late well late", false, Hung}, {"hangs-in-stop", true, Hung},
        {"says-nothing-in-stop", true, Hung},   {"hangs-in-handler", true, Hung},
    };
    const TemporaryFolder folder;
    std::vector<std::unique_ptr<ChildProcess>> units;
    for (const UnitEnd& row : rows) {
        const std::filesystem::path file =
            std::filesystem::path(folder.Path()) / (std::to_string(units.size()) + ".service");
        // Only what is to run out is short.
        std::ofstream(file) << "[Service]\nType=notify\nNotifyAccess=main\nKillMode=mixed\nExecStart="
                            << std::filesystem::read_symlink("/proc/self/exe").string()
                            << " --role=misbehaving " << row.does
                            << "\nTimeoutStartSec=" << (row.end == Hung && !row.stops ? 20 : 2000)
                            << "\nTimeoutStopSec=10\n";
        units.push_back(std::make_unique<ChildProcess>(
            "systemd_standin", std::vector<std::string>{file.string(), "20"}, ChildProcess::Files::Piped));
    }
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].does);
        std::string all = rows[i].stops ? units[i]->ReadTo("unit: running") : "";
        if (rows[i].stops) units[i]->Write("stop\n");
        all += units[i]->ReadAll();
        EXPECT_THAT(all, testing::EndsWith(rows[i].end));
        EXPECT_EQ(units[i]->ExitCode(), 1);
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
