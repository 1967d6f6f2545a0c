#include "platform/linux/internal/SystemdHost.h"

#include "platform/linux/Environment.h"
#include "platform/linux/internal/Clock.h"
#include "platform/linux/internal/ServiceWake.h"
#include "platform/linux/internal/Wide.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>

namespace Quellan::Corvel::Platform {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr std::array<int, 3> StopAndReloadSignals = {SIGTERM, SIGINT, SIGHUP};

// All that the signal handler touches.
std::atomic<bool> g_isStopAsked{false};
std::atomic<bool> g_isReloadAsked{false};
std::atomic<int> g_wakeFd{-1};

void OnSignal(int signal) {
    const int saved = errno;
    (signal == SIGHUP ? g_isReloadAsked : g_isStopAsked) = true;
    static_cast<void>(eventfd_write(g_wakeFd, 1));
    errno = saved;
}

// The signals are caught while it lives.
class CaughtSignals {
  public:
    explicit CaughtSignals(const ServiceWake& wake) {
        g_wakeFd = wake.Fd();
        for (std::size_t i = 0; i < StopAndReloadSignals.size(); ++i) {
            struct sigaction action {};
            action.sa_handler = OnSignal;
            action.sa_flags = SA_RESTART;
            sigaction(StopAndReloadSignals[i], &action, &m_previous[i]);
        }
    }
    ~CaughtSignals() {
        for (std::size_t i = 0; i < StopAndReloadSignals.size(); ++i)
            sigaction(StopAndReloadSignals[i], &m_previous[i], nullptr);
    }
    CaughtSignals(const CaughtSignals&) = delete;
    CaughtSignals& operator=(const CaughtSignals&) = delete;

  private:
    std::array<struct sigaction, StopAndReloadSignals.size()> m_previous;
};

// The socket that systemd listens on: a path, or a name behind '@' in the abstract namespace.
class NotifySocket {
  public:
    explicit NotifySocket(const std::string& name) {
        m_address.sun_family = AF_UNIX;
        if (name.size() >= sizeof m_address.sun_path) return;
        name.copy(m_address.sun_path, name.size());
        if (name.starts_with('@')) m_address.sun_path[0] = '\0';
        m_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        m_socket = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    bool IsGood() const { return static_cast<bool>(m_socket); }
    void Send(const std::string& text) const {
        Retry([&] {
            return sendto(m_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL,
                          reinterpret_cast<const sockaddr*>(&m_address), m_size);
        });
    }

  private:
    sockaddr_un m_address{};
    socklen_t m_size = 0;
    Descriptor m_socket;
};

std::string Variable(const wchar_t* name) {
    wchar_t value[64];
    const DWORD size = GetEnvironmentVariableW(name, value, 64);
    return ToUtf8({value, size < 64 ? size : 0});
}

std::optional<std::uint64_t> NumberIn(const wchar_t* name) {
    const std::string text = Variable(name);
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

// How often systemd wants to hear that all is well: half of its limit, so that one sign may come late.
std::optional<microseconds> FindWatchdogPeriod() {
    const auto process = NumberIn(L"WATCHDOG_PID");
    const auto limit = NumberIn(L"WATCHDOG_USEC");
    if (!limit || *limit < 2 || (process && *process != static_cast<std::uint64_t>(getpid())))
        return std::nullopt;
    return microseconds(*limit / 2);
}

const char* NameOfState(DWORD state) {
    constexpr std::array<const char*, 8> Names = {"unknown", "stopped",    "starting", "stopping",
                                                  "running", "continuing", "pausing",  "paused"};
    return Names[state < Names.size() ? state : 0];
}

bool IsPending(DWORD state) {
    return state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING ||
           state == SERVICE_CONTINUE_PENDING || state == SERVICE_PAUSE_PENDING;
}
// Whether the service takes controls.
bool IsUp(DWORD state) {
    return state != SERVICE_STOPPED && state != SERVICE_START_PENDING && state != SERVICE_STOP_PENDING;
}

class SystemdLink : public ServiceListener {
  public:
    SystemdLink(ServiceHost& host, const std::string& socket) : m_host(host), m_socket(socket) {}
    ~SystemdLink() override { m_host.SetListener(nullptr); }
    SystemdLink(const SystemdLink&) = delete;
    SystemdLink& operator=(const SystemdLink&) = delete;

    DWORD Run();
    void OnReport(const NamedStatus&) noexcept override {
        m_hasReports = true;
        m_wake.Set();
    }

  private:
    enum class Phase { Starting, Ready, Stopping };

    bool StartAll();
    void TellStates();
    void Stop(const std::vector<NamedStatus>& services);
    void Reload(const std::vector<NamedStatus>& services);
    void FeedWatchdog(const std::vector<NamedStatus>& services);
    int MsToWatchdog() const;

    ServiceHost& m_host;
    const NotifySocket m_socket;
    const ServiceWake m_wake;
    Phase m_phase = Phase::Starting;
    std::atomic<bool> m_hasReports{true};
    std::vector<std::string> m_stopped;  // that got their stop control
    const std::optional<microseconds> m_watchdogPeriod = FindWatchdogPeriod();
    Clock::time_point m_nextSign = Clock::now();
};

// A service that cannot be started is told of and keeps the others from none.
bool SystemdLink::StartAll() {
    const std::vector<std::string> names = m_host.Names();
    bool isAny = false;
    for (const std::string& name : names) {
        const DWORD code = m_host.Run({name, names.size() == 1, {}});
        if (code) m_socket.Send("STATUS=" + name + ": error " + std::to_string(code));
        isAny = isAny || !code;
    }
    return isAny;
}

void SystemdLink::TellStates() {
    if (!m_hasReports.exchange(false)) return;
    const std::vector<NamedStatus> services = m_host.Statuses();
    std::string text;
    DWORD waitHint = 0;
    for (const NamedStatus& service : services) {
        const SERVICE_STATUS& now = service.status;
        text += (text.empty() ? "STATUS=" : ", ") + service.name + ' ' + NameOfState(now.dwCurrentState);
        if (IsPending(now.dwCurrentState)) waitHint = std::max(waitHint, now.dwWaitHint);
    }
    if (waitHint) text += "\nEXTEND_TIMEOUT_USEC=" + std::to_string(std::uint64_t{waitHint} * 1000);
    const auto areAll = [&](auto condition) {
        return std::ranges::all_of(
            services, [&](const NamedStatus& service) { return condition(service.status.dwCurrentState); });
    };
    const bool isEnding = areAll([](DWORD s) { return s == SERVICE_STOP_PENDING || s == SERVICE_STOPPED; });
    if (isEnding && m_phase != Phase::Stopping) {
        text += "\nSTOPPING=1";
        m_phase = Phase::Stopping;
    } else if (m_phase == Phase::Starting && areAll([](DWORD s) { return s != SERVICE_START_PENDING; })) {
        text += "\nREADY=1";
        m_phase = Phase::Ready;
    }
    m_socket.Send(text);
}

// Each as soon as it takes controls.
void SystemdLink::Stop(const std::vector<NamedStatus>& services) {
    for (const NamedStatus& service : services) {
        const bool takesIt =
            IsUp(service.status.dwCurrentState) && (service.status.dwControlsAccepted & SERVICE_ACCEPT_STOP);
        if (!takesIt || std::ranges::count(m_stopped, service.name)) continue;
        m_stopped.push_back(service.name);
        m_host.Control(service.name, SERVICE_CONTROL_STOP);
    }
}

void SystemdLink::Reload(const std::vector<NamedStatus>& services) {
    const std::uint64_t now = StepsOf(ReadClock(CLOCK_MONOTONIC)) / 10;
    m_socket.Send("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now));
    for (const NamedStatus& service : services)
        if (IsUp(service.status.dwCurrentState) &&
            (service.status.dwControlsAccepted & SERVICE_ACCEPT_PARAMCHANGE))
            m_host.Control(service.name, SERVICE_CONTROL_PARAMCHANGE);
    m_socket.Send("READY=1");
}

// The sign is given when all handlers have answered: one that hangs keeps it from systemd.
void SystemdLink::FeedWatchdog(const std::vector<NamedStatus>& services) {
    if (!m_watchdogPeriod || Clock::now() < m_nextSign) return;
    for (const NamedStatus& service : services)
        if (IsUp(service.status.dwCurrentState)) m_host.Control(service.name, SERVICE_CONTROL_INTERROGATE);
    m_socket.Send("WATCHDOG=1");
    m_nextSign = Clock::now() + *m_watchdogPeriod;
}

int SystemdLink::MsToWatchdog() const {
    if (!m_watchdogPeriod) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_nextSign - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT32_MAX));
}

DWORD SystemdLink::Run() {
    if (!m_socket.IsGood() || !m_wake.IsGood()) return ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    const CaughtSignals signals(m_wake);
    m_host.SetListener(this);
    m_socket.Send("MAINPID=" + std::to_string(getpid()));
    if (!StartAll()) return ERROR_SERVICE_NO_THREAD;
    for (;;) {
        TellStates();
        const std::vector<NamedStatus> services = m_host.Statuses();
        if (m_host.AreAllStopped()) {
            TellStates();  // where the last report came in between
            return ERROR_SUCCESS;
        }
        if (g_isStopAsked) Stop(services);
        if (m_phase == Phase::Ready && g_isReloadAsked.exchange(false)) Reload(services);
        FeedWatchdog(services);
        m_wake.Wait(MsToWatchdog());
    }
}

}  // namespace

DWORD RunUnderSystemd(ServiceHost& host, const std::string& socket) {
    return SystemdLink(host, socket).Run();
}

}  // namespace Quellan::Corvel::Platform
