#include "TQLib/platform/linux/services/SystemdHost.h"

#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/Environment.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/services/ServiceWake.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <map>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>

namespace Quellan::Platform {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

// When what systemd did not take is said again, and how often where nothing else is left to do.
constexpr int RetryMs = 100;
constexpr int MostLastTries = 100;

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
        g_wakeFd = -1;
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
    // False where it was not taken, as its queue is full or it starts anew.
    bool Send(const std::string& text) const {
        return Retry([&] {
                   return sendto(m_socket.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                 reinterpret_cast<const sockaddr*>(&m_address), m_size);
               }) >= 0;
    }

  private:
    sockaddr_un m_address{};
    socklen_t m_size = 0;
    Descriptor m_socket;
};

std::string SystemdVariable(const wchar_t* name) {
    wchar_t value[64];
    const DWORD size = GetEnvironmentVariableW(name, value, 64);
    return ToUtf8({value, size < 64 ? size : 0});
}

std::optional<std::uint64_t> NumberIn(const wchar_t* name) {
    const std::string text = SystemdVariable(name);
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

// Whether the service takes controls.
bool IsUp(DWORD state) {
    return state != SERVICE_STOPPED && state != SERVICE_START_PENDING && state != SERVICE_STOP_PENDING;
}

// What the service has ended with; 0 for one that runs or has ended well.
DWORD FailureOf(const SERVICE_STATUS& status) {
    if (status.dwCurrentState != SERVICE_STOPPED) return 0;
    return status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR ? status.dwServiceSpecificExitCode
                                                                  : status.dwWin32ExitCode;
}

// 0 for a code that is the translation of none.
int ErrnoOf(DWORD code) {
    constexpr int last = 133;
    if (code == ERROR_GEN_FAILURE) return 0;
    if (code == CodeFromErrno(EACCES)) return EACCES;
    for (int error = 1; error <= last; ++error)
        if (CodeFromErrno(error) == code) return error;
    return 0;
}

// Lines are the protocol's.
std::string OnOneLine(std::string text) {
    std::ranges::replace_if(
        text, [](unsigned char c) { return c < ' '; }, '?');
    return text;
}

// Codes of exceptions are read in hexadecimal.
std::string CodeText(DWORD code) {
    char text[16];
    std::snprintf(text, sizeof text, code < 0x80000000 ? "%u" : "0x%08X", code);
    return std::string("error ") + text;
}

std::string Described(const NamedStatus& service) {
    std::string text = OnOneLine(service.name) + ' ' + NameOfState(service.status.dwCurrentState);
    if (const DWORD code = FailureOf(service.status)) text += " (" + CodeText(code) + ')';
    return text;
}

class SystemdLink : public ServiceListener {
  public:
    SystemdLink(HostedServices& host, const std::string& socket) : m_host(host), m_socket(socket) {}
    ~SystemdLink() override { m_host.SetListener(nullptr); }
    SystemdLink(const SystemdLink&) = delete;
    SystemdLink& operator=(const SystemdLink&) = delete;

    DWORD Run();
    void OnReport(const NamedStatus&) noexcept override TQ_REQUIRES(HostedServices::Lock) { m_wake.Set(); }

  private:
    enum class Phase { Starting, Ready, Stopping };
    struct Seen {
        DWORD state = 0;
        DWORD checkPoint = 0;
        bool operator==(const Seen&) const = default;
    };

    void StartAll();
    bool GoOn();
    void Say(std::string text);
    bool HasSaidAll();
    void TellStates(const std::vector<NamedStatus>& services);
    DWORD NewWaitHint(const std::vector<NamedStatus>& services);
    void Stop(const std::vector<NamedStatus>& services);
    void Reload(const std::vector<NamedStatus>& services);
    void FeedWatchdog(const std::vector<NamedStatus>& services);
    int MsToNext() const;

    HostedServices& m_host;
    const NotifySocket m_socket;
    const ServiceWake m_wake;
    Phase m_phase = Phase::Starting;
    DWORD m_startCode = ERROR_SUCCESS;
    std::string m_notStarted;
    bool m_isEnding = false;  // all services are to stop
    std::deque<std::string> m_unsaid;
    std::string m_lastText;
    std::map<std::string, Seen> m_seen;  // of services that were told of
    int m_lastTries = 0;
    std::vector<std::string> m_stopped;  // that got their stop control
    const std::optional<microseconds> m_watchdogPeriod = FindWatchdogPeriod();
    Clock::time_point m_nextSign = Clock::now();
};

// In their order, and none is lost where it is not taken at once.
void SystemdLink::Say(std::string text) {
    m_unsaid.push_back(std::move(text));
    HasSaidAll();
}

bool SystemdLink::HasSaidAll() {
    while (!m_unsaid.empty() && m_socket.Send(m_unsaid.front()))
        m_unsaid.pop_front();
    return m_unsaid.empty();
}

// A service that cannot be started has failed.
void SystemdLink::StartAll() {
    const std::vector<std::string> names = m_host.Names();
    for (const std::string& name : names) {
        const DWORD code = m_host.Run({name, names.size() == 1, {}});
        if (!code) continue;
        m_startCode = code;
        m_notStarted += OnOneLine(name) + " not started (" + CodeText(code) + "), ";
    }
}

// Of those that are on their way and have come further, so that neither a service that hangs nor another's
// reports gain time for it. 0 where there is none.
DWORD SystemdLink::NewWaitHint(const std::vector<NamedStatus>& services) {
    DWORD waitHint = 0;
    for (const auto& [name, status] : services) {
        const Seen now{status.dwCurrentState, status.dwCheckPoint};
        const bool isOnItsWay = now.state == SERVICE_START_PENDING || now.state == SERVICE_STOP_PENDING;
        if (std::exchange(m_seen[name], now) != now && isOnItsWay)
            waitHint = std::max(waitHint, status.dwWaitHint);
    }
    return waitHint;
}

void SystemdLink::TellStates(const std::vector<NamedStatus>& services) {
    std::string text = "STATUS=" + m_notStarted;
    int error = ErrnoOf(m_startCode);
    for (const NamedStatus& service : services) {
        text += Described(service) + ", ";
        if (!error) error = ErrnoOf(FailureOf(service.status));
    }
    text.resize(text.size() - 2);
    if (error) text += "\nERRNO=" + std::to_string(error);
    const auto areAll = [&](auto condition) {
        return std::ranges::all_of(
            services, [&](const NamedStatus& service) { return condition(service.status.dwCurrentState); });
    };
    m_isEnding =
        m_isEnding || areAll([](DWORD s) { return s == SERVICE_STOP_PENDING || s == SERVICE_STOPPED; });
    Phase phase = m_phase;
    if (m_isEnding)
        phase = Phase::Stopping;
    else if (phase == Phase::Starting && areAll([](DWORD s) { return s != SERVICE_START_PENDING; }))
        phase = Phase::Ready;
    const DWORD waitHint = phase == Phase::Ready ? 0 : NewWaitHint(services);
    if (phase == m_phase && text == m_lastText && !waitHint) return;
    std::string message = text;
    if (phase != m_phase) message += phase == Phase::Ready ? "\nREADY=1" : "\nSTOPPING=1";
    if (waitHint) message += "\nEXTEND_TIMEOUT_USEC=" + std::to_string(std::uint64_t{waitHint} * 1000);
    Say(std::move(message));
    m_phase = phase;
    m_lastText = std::move(text);
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
    Say("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now));
    m_phase = Phase::Starting;
    for (const NamedStatus& service : services)
        if (IsUp(service.status.dwCurrentState) &&
            (service.status.dwControlsAccepted & SERVICE_ACCEPT_PARAMCHANGE))
            m_host.Control(service.name, SERVICE_CONTROL_PARAMCHANGE);
    TellStates(m_host.Statuses());
}

// The sign is given when all handlers have answered: one that hangs keeps it from systemd.
void SystemdLink::FeedWatchdog(const std::vector<NamedStatus>& services) {
    if (!m_watchdogPeriod || Clock::now() < m_nextSign) return;
    for (const NamedStatus& service : services)
        if (IsUp(service.status.dwCurrentState)) m_host.Control(service.name, SERVICE_CONTROL_INTERROGATE);
    Say("WATCHDOG=1");
    m_nextSign = Clock::now() + *m_watchdogPeriod;
}

int SystemdLink::MsToNext() const {
    if (!m_unsaid.empty()) return RetryMs;
    if (!m_watchdogPeriod) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_nextSign - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, INT32_MAX));
}

// False when all services have stopped, and systemd knows it or does not listen.
bool SystemdLink::GoOn() {
    const bool areAllStopped = m_host.AreAllStopped();
    const std::vector<NamedStatus> services = m_host.Statuses();
    const auto hasFailed = [](const NamedStatus& service) { return FailureOf(service.status) != 0; };
    // The unit is one: where a service of it has failed the others stop too, so that the process ends as failed
    // and systemd acts on it.
    m_isEnding = m_isEnding || g_isStopAsked || m_startCode || std::ranges::any_of(services, hasFailed);
    const bool isHeard = HasSaidAll();
    if (isHeard) TellStates(services);
    if (areAllStopped) return !m_unsaid.empty() && ++m_lastTries < MostLastTries;
    if (m_isEnding) Stop(services);
    if (!isHeard) return true;
    if (m_phase == Phase::Ready && g_isReloadAsked.exchange(false)) Reload(services);
    FeedWatchdog(services);
    return true;
}

DWORD SystemdLink::Run() {
    if (!m_socket.IsGood() || !m_wake.IsGood()) return ERROR_NO_SYSTEM_RESOURCES;
    const CaughtSignals signals(m_wake);
    m_host.SetListener(this);
    Say("MAINPID=" + std::to_string(getpid()));
    StartAll();
    for (bool goesOn = true; goesOn;) {
        // The services run on where memory is short, and so does what controls them.
        const DWORD code = WithMemory([&] {
            goesOn = GoOn();
            return DWORD{ERROR_SUCCESS};
        });
        if (goesOn) m_wake.Wait(code ? RetryMs : MsToNext());
    }
    return m_startCode;
}

}  // namespace

DWORD RunUnderSystemd(HostedServices& host, const std::string& socket) {
    return SystemdLink(host, socket).Run();
}

}  // namespace Quellan::Platform
