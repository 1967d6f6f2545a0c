// The program's side of a service, where the service manager has started it.
#include "TQLib/platform/linux/base/Environment.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/services/HostedServices.h"
#include "TQLib/platform/linux/services/ServiceSocket.h"
#include "TQLib/platform/linux/services/ServiceWake.h"
#include "TQLib/platform/linux/services/SystemdHost.h"

#include <algorithm>
#include <chrono>
#include <sys/socket.h>
#include <utility>

namespace Quellan::Platform {

namespace {

// How often a manager that has ended is looked for, first and after a while.
constexpr int FirstRetryMs = 20;
constexpr int LastRetryMs = 1000;
// The same for one that lives and does not want to know of this process.
constexpr int LastRetryMsWhereRefused = 60'000;
// How long it is looked for when all that is left to do is to say that the services have stopped.
constexpr std::chrono::seconds LastReportLimit{10};

// In which a manager says whether it knows this process.
constexpr timeval AnswerLimit = {.tv_sec = 30, .tv_usec = 0};

void SetAnswerLimit(int connection, const timeval& limit) {
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

// The connection to the manager.
class ManagerLink : public ServiceListener {
  public:
    explicit ManagerLink(HostedServices& host) : m_host(host) {}
    ~ManagerLink() override { m_host.SetListener(nullptr); }
    ManagerLink(const ManagerLink&) = delete;
    ManagerLink& operator=(const ManagerLink&) = delete;

    DWORD Run();
    void OnReport(const NamedStatus& service) noexcept override TQ_REQUIRES(HostedServices::Lock);

  private:
    enum class Next { GoOn, Reconnect, End };

    bool Attach();
    bool AttachAgain();
    void WaitForManager(int ms) const;
    Next ServeOne();
    Next Serve(const std::string& packet);
    bool Answer(DWORD code);
    bool TrySend(const NamedStatus& service) const;
    bool CatchUp();

    HostedServices& m_host;
    const std::string m_path = ServiceManagerSocket();
    const ServiceWake m_wake;
    Descriptor m_connection;  // changed by the dispatcher's thread, under HostedServices::Lock
    Descriptor m_refusal;     // to a manager that has refused this process
    bool m_isBehind TQ_GUARDED_BY(HostedServices::Lock) = false;  // reports were not sent
};

bool ManagerLink::TrySend(const NamedStatus& service) const {
    const std::string packet = FormatMessage(StatusMessage{service});
    return Retry([&] {
               return send(m_connection.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
           }) >= 0;
}

// Reports neither wait nor overtake one another. One that cannot be sent now is sent by the dispatcher's
// thread, as it is then.
void ManagerLink::OnReport(const NamedStatus& service) noexcept {
    bool isSent = false;
    if (m_connection && !m_isBehind)
        WithMemory([&] {
            isSent = TrySend(service);
            return ERROR_SUCCESS;
        });
    if (isSent) return;
    m_isBehind = true;
    m_wake.Set();
}

// Returns when nothing waits to be sent any more. False where the manager has ended.
bool ManagerLink::CatchUp() {
    for (;;) {
        int error = 0;
        m_host.WithStatuses([&](const std::vector<NamedStatus>& statuses) TQ_REQUIRES(HostedServices::Lock) {
            if (m_isBehind && !std::ranges::all_of(statuses, [&](auto& service) { return TrySend(service); }))
                error = errno;
            else
                m_isBehind = false;
        });
        if (!error) return true;
        if (error != EAGAIN && error != ENOBUFS) return false;
        pollfd full{.fd = m_connection.Get(), .events = POLLOUT, .revents = 0};
        poll(&full, 1, -1);
        if (full.revents & (POLLERR | POLLHUP)) return false;
    }
}

// Connects and says what runs here. False where the manager does not want to know of this process.
bool ManagerLink::Attach() {
    Descriptor connection;
    m_refusal = Descriptor();
    if (ConnectToServiceManager(m_path, connection)) return false;
    const int fd = connection.Get();
    const DWORD code =
        m_host.WithStatuses([&](std::vector<NamedStatus>&& statuses) TQ_REQUIRES(HostedServices::Lock) {
            if (DWORD failed =
                    SendPacket(fd, FormatMessage(AttachMessage{ServiceProtocolVersion, std::move(statuses)})))
                return failed;
            m_connection = std::move(connection);
            m_isBehind = false;
            return DWORD{ERROR_SUCCESS};
        });
    SetAnswerLimit(fd, AnswerLimit);
    std::string packet;
    ReplyMessage reply;
    const bool isAnswered = !code && !ReceivePacket(fd, packet) && ParseMessage(packet, reply);
    SetAnswerLimit(fd, {});
    if (isAnswered && !reply.code) return true;
    m_host.WithStatuses([&](const auto&) {
        Descriptor ended = std::exchange(m_connection, Descriptor());
        if (isAnswered) m_refusal = std::move(ended);
    });
    return false;
}

// Or for a report, or the end of the one that has refused this process: there may be another one then.
void ManagerLink::WaitForManager(int ms) const {
    pollfd sources[] = {{.fd = m_wake.Fd(), .events = POLLIN, .revents = 0},
                        {.fd = m_refusal.Get(), .events = 0, .revents = 0}};
    poll(sources, std::size(sources), ms);
    m_wake.Reset();
    if (sources[1].revents) m_wake.Wait(FirstRetryMs);
}

// Waits for a manager. False when there is nothing left to tell it, or none came to be told.
bool ManagerLink::AttachAgain() {
    m_host.WithStatuses([&](const auto&) { m_connection = Descriptor(); });
    const auto begin = std::chrono::steady_clock::now();
    for (int pause = FirstRetryMs;; pause *= 2) {
        if (Attach()) return true;
        pause = std::min(pause, m_refusal ? LastRetryMsWhereRefused : LastRetryMs);
        const bool isLate = std::chrono::steady_clock::now() - begin > LastReportLimit;
        if (isLate && m_host.AreAllStopped()) return false;
        WaitForManager(pause);
    }
}

bool ManagerLink::Answer(DWORD code) {
    return CatchUp() && SendPacket(m_connection.Get(), FormatMessage(DoneMessage{code})) == ERROR_SUCCESS;
}

ManagerLink::Next ManagerLink::Serve(const std::string& packet) {
    RunMessage run;
    ControlMessage control;
    FinishMessage finish;
    if (ParseMessage(packet, run)) return Answer(m_host.Run(run)) ? Next::GoOn : Next::Reconnect;
    if (ParseMessage(packet, control))
        return Answer(m_host.Control(control.name, control.control)) ? Next::GoOn : Next::Reconnect;
    if (ParseMessage(packet, finish) && m_host.AreAllStopped()) return Next::End;
    return Next::Reconnect;
}

ManagerLink::Next ManagerLink::ServeOne() {
    pollfd sources[] = {{.fd = m_connection.Get(), .events = POLLIN, .revents = 0},
                        {.fd = m_wake.Fd(), .events = POLLIN, .revents = 0}};
    if (poll(sources, std::size(sources), -1) < 0) return Next::GoOn;
    if (sources[1].revents) {
        m_wake.Reset();
        if (!CatchUp()) return Next::Reconnect;
    }
    if (!sources[0].revents) return Next::GoOn;
    std::string packet;
    return ReceivePacket(m_connection.Get(), packet) ? Next::Reconnect : Serve(packet);
}

DWORD ManagerLink::Run() {
    if (!m_wake.IsGood()) return ERROR_NO_SYSTEM_RESOURCES;
    m_host.SetListener(this);
    if (!Attach()) return ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    for (Next next = Next::GoOn; next != Next::End;) {
        const DWORD code = WithMemory([&] {
            next = next == Next::Reconnect && !AttachAgain() ? Next::End : ServeOne();
            return DWORD{ERROR_SUCCESS};
        });
        if (!code) continue;
        // What was under way is lost, and the manager is told so by that; the services go on.
        next = Next::Reconnect;
        m_wake.Wait(FirstRetryMs);
    }
    return ERROR_SUCCESS;
}

// The variable's value, which no process that this one starts inherits.
std::string TakeVariable(const wchar_t* name) {
    std::wstring value(PATH_MAX, L'\0');
    value.resize(std::min<std::size_t>(GetEnvironmentVariableW(name, value.data(), PATH_MAX), PATH_MAX));
    if (!value.empty()) SetEnvironmentVariableW(name, nullptr);
    return ToUtf8(value);
}

DWORD Dispatch(const SERVICE_TABLE_ENTRYW* table) {
    HostedServices& host = HostedServices::Instance();
    if (DWORD code = host.SetTable(table)) return code;
    if (!TakeVariable(ServiceProcessVariable).empty()) return ManagerLink(host).Run();
    const std::string systemd = TakeVariable(L"NOTIFY_SOCKET");
    return systemd.empty() ? ERROR_FAILED_SERVICE_CONTROLLER_CONNECT : RunUnderSystemd(host, systemd);
}

// A handler without context is called through one with it: the context is the handler.
DWORD CallPlainHandler(DWORD control, DWORD, void*, void* context) {
    reinterpret_cast<LPHANDLER_FUNCTION>(context)(control);
    return ERROR_SUCCESS;
}

SERVICE_STATUS_HANDLE Register(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context) noexcept {
    SERVICE_STATUS_HANDLE handle = nullptr;
    const DWORD code =
        WithMemory([&] { return HostedServices::Instance().Register(name, handler, context, handle); });
    return code ? Fail<SERVICE_STATUS_HANDLE>(code, nullptr) : handle;
}

}  // namespace

BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW* table) noexcept {
    if (DWORD code = FaultDue("StartServiceCtrlDispatcherW")) return Fail(code, FALSE);
    const DWORD code = WithMemory([&] { return Dispatch(table); });
    return code ? Fail(code, FALSE) : TRUE;
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                                    void* context) noexcept {
    if (DWORD code = FaultDue("RegisterServiceCtrlHandlerExW"))
        return Fail<SERVICE_STATUS_HANDLE>(code, nullptr);
    if (!name || !handler) return Fail<SERVICE_STATUS_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    return Register(name, handler, context);
}

SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(const wchar_t* name, LPHANDLER_FUNCTION handler) noexcept {
    if (DWORD code = FaultDue("RegisterServiceCtrlHandlerW"))
        return Fail<SERVICE_STATUS_HANDLE>(code, nullptr);
    if (!name || !handler) return Fail<SERVICE_STATUS_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    return Register(name, &CallPlainHandler, reinterpret_cast<void*>(handler));
}

BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) noexcept {
    if (DWORD code = FaultDue("SetServiceStatus")) return Fail(code, FALSE);
    if (!status) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] { return HostedServices::Instance().Report(handle, *status); });
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
