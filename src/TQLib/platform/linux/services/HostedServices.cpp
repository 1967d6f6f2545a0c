#include "TQLib/platform/linux/services/HostedServices.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/objects/Handles.h"
#include "TQLib/platform/linux/objects/Threads.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

constexpr DWORD FirstWaitHintMs = 2000;
constexpr DWORD KnownControls = 0x7FFF;

bool IsValidStatus(const SERVICE_STATUS& status) noexcept {
    const bool type = status.dwServiceType == SERVICE_WIN32_OWN_PROCESS ||
                      status.dwServiceType == SERVICE_WIN32_SHARE_PROCESS;
    const bool state = status.dwCurrentState >= SERVICE_STOPPED && status.dwCurrentState <= SERVICE_PAUSED;
    return type && state && !(status.dwControlsAccepted & ~KnownControls);
}

}  // namespace

struct HostedServices::Hosted {
    std::wstring tableName;
    LPSERVICE_MAIN_FUNCTIONW main;
    NamedStatus now TQ_GUARDED_BY(Lock);  // with the name as it was started
    unsigned runs TQ_GUARDED_BY(Lock) = 0;
    bool isRunning TQ_GUARDED_BY(Lock) = false;  // started, and not reported as stopped since
    bool isAlone TQ_GUARDED_BY(Lock) = false;
    LPHANDLER_FUNCTION_EX handler TQ_GUARDED_BY(Lock) = nullptr;
    void* context TQ_GUARDED_BY(Lock) = nullptr;
    HANDLE statusHandle TQ_GUARDED_BY(Lock) = nullptr;
};

// What a status handle names, as long as that run of the service lasts.
struct HostedServices::StatusTarget : Object {
    static constexpr ObjectKind Kind{.name = "service status", .closedByCloseHandle = false};

    explicit StatusTarget(Hosted& reporting) noexcept : Object(Kind), service(reporting) {}
    Hosted& service;
};

struct HostedServices::MainCall {
    Hosted* service = nullptr;
    unsigned run = 0;
    std::vector<std::wstring> arguments;
    std::vector<wchar_t*> pointers;

    static DWORD Make(void* parameter) {
        const std::unique_ptr<MainCall> call(static_cast<MainCall*>(parameter));
        call->service->main(static_cast<DWORD>(call->arguments.size()), call->pointers.data());
        Instance().OnMainReturned(*call->service, call->run);
        return 0;
    }
};

HostedServices& HostedServices::Instance() {
    alignas(HostedServices) static std::byte memory[sizeof(HostedServices)];
    static HostedServices& instance = *new (memory) HostedServices;
    return instance;
}

DWORD HostedServices::SetTable(const SERVICE_TABLE_ENTRYW* table) {
    std::vector<std::unique_ptr<Hosted>> services;
    for (; table && table->lpServiceName; ++table) {
        if (!table->lpServiceProc) return ERROR_INVALID_DATA;
        services.push_back(std::make_unique<Hosted>());
        services.back()->tableName = table->lpServiceName;
        services.back()->main = table->lpServiceProc;
    }
    if (services.empty()) return table ? ERROR_INVALID_DATA : ERROR_INVALID_PARAMETER;
    const Guard lock(Lock);
    if (!m_services.empty()) return ERROR_SERVICE_ALREADY_RUNNING;
    m_services = std::move(services);
    return ERROR_SUCCESS;
}

std::vector<std::string> HostedServices::Names() {
    const Guard lock(Lock);
    std::vector<std::string> names;
    for (const auto& service : m_services)
        names.push_back(ToUtf8(service->tableName));
    return names;
}

void HostedServices::SetListener(ServiceListener* listener) {
    const Guard lock(Lock);
    m_listener = listener;
}

HostedServices::Hosted* HostedServices::FindInTable(const RunMessage& run) {
    const std::wstring name = ToWide(run.name);
    const auto found = std::ranges::find_if(
        m_services, [&](const auto& service) { return CompareOrdinal(service->tableName, name, true) == 0; });
    if (found != m_services.end()) return found->get();
    return run.isAlone ? m_services.front().get() : nullptr;
}

HostedServices::Hosted* HostedServices::FindRunning(const wchar_t* name) {
    const auto found = std::ranges::find_if(m_services, [&](const auto& service) TQ_REQUIRES(Lock) {
        return service->isRunning &&
               (service->isAlone || CompareOrdinal(service->tableName, name, true) == 0);
    });
    return found != m_services.end() ? found->get() : nullptr;
}

DWORD HostedServices::Run(const RunMessage& run) {
    auto call = std::make_unique<MainCall>();
    call->arguments.push_back(ToWide(run.name));
    for (const std::string& argument : run.arguments)
        call->arguments.push_back(ToWide(argument));
    for (std::wstring& argument : call->arguments)
        call->pointers.push_back(argument.data());
    call->pointers.push_back(nullptr);
    std::string name = run.name;
    Hosted* service = nullptr;
    {
        const Guard lock(Lock);
        service = FindInTable(run);
        if (!service) return ERROR_SERVICE_NOT_IN_EXE;
        if (service->isRunning) return ERROR_SERVICE_ALREADY_RUNNING;
        call->service = service;
        call->run = ++service->runs;
        service->isRunning = true;
        service->isAlone = run.isAlone != 0;
        service->handler = nullptr;
        SERVICE_STATUS status{};
        status.dwServiceType = run.isAlone ? SERVICE_WIN32_OWN_PROCESS : SERVICE_WIN32_SHARE_PROCESS;
        status.dwCurrentState = SERVICE_START_PENDING;
        status.dwWaitHint = FirstWaitHintMs;
        service->now = {std::move(name), status};
    }
    const HANDLE thread = CreateThread(nullptr, 0, &MainCall::Make, call.get(), 0, nullptr);
    if (!thread) {
        const Guard lock(Lock);
        --service->runs;
        service->isRunning = false;
        return ERROR_SERVICE_NO_THREAD;
    }
    static_cast<void>(call.release());  // the thread's
    CloseHandle(thread);
    return ERROR_SUCCESS;
}

DWORD HostedServices::Control(const std::string& name, DWORD control) {
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    {
        const Guard lock(Lock);
        const auto found = std::ranges::find_if(m_services, [&](const auto& service) TQ_REQUIRES(Lock) {
            return service->isRunning && service->now.name == name;
        });
        if (found == m_services.end()) return ERROR_SERVICE_NOT_ACTIVE;
        handler = (*found)->handler;
        context = (*found)->context;
    }
    return handler ? handler(control, 0, nullptr, context) : ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
}

std::vector<NamedStatus> HostedServices::StatusesLocked() {
    std::vector<NamedStatus> statuses;
    for (const auto& service : m_services)
        if (service->runs > 0) statuses.push_back(service->now);
    return statuses;
}

std::vector<NamedStatus> HostedServices::Statuses() {
    return WithStatuses([](std::vector<NamedStatus> statuses) { return statuses; });
}

bool HostedServices::AreAllStopped() {
    const Guard lock(Lock);
    return std::ranges::none_of(m_services,
                                [](const auto& service) TQ_REQUIRES(Lock) { return service->isRunning; });
}

DWORD HostedServices::Register(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context,
                               SERVICE_STATUS_HANDLE& handle) {
    const Guard lock(Lock);
    if (!m_listener) return ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    Hosted* const service = FindRunning(name);
    if (!service) return ERROR_SERVICE_DOES_NOT_EXIST;
    if (!service->statusHandle)
        if (DWORD code = NewHandle<StatusTarget>(service->statusHandle, 0, *service)) return code;
    service->handler = handler;
    service->context = context;
    handle = static_cast<SERVICE_STATUS_HANDLE>(service->statusHandle);
    return ERROR_SUCCESS;
}

DWORD HostedServices::Report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status) {
    const HandleRef<StatusTarget> target(handle);
    if (!target) return ERROR_INVALID_HANDLE;
    if (!IsValidStatus(status)) return ERROR_INVALID_DATA;
    const Guard lock(Lock);
    Hosted& service = target->service;
    if (service.statusHandle != handle) return ERROR_INVALID_HANDLE;  // stopped by another thread
    service.now.status = status;
    if (status.dwCurrentState == SERVICE_STOPPED) {
        service.isRunning = false;
        CloseHandleOf(std::exchange(service.statusHandle, nullptr), &StatusTarget::Kind);
    }
    if (m_listener) m_listener->OnReport(service.now);
    return ERROR_SUCCESS;
}

// Who has a handler may report from any thread for as long as it likes. Who has none can report no more.
void HostedServices::OnMainReturned(Hosted& service, unsigned run) noexcept {
    const Guard lock(Lock);
    if (service.runs != run || !service.isRunning || service.handler) return;
    SERVICE_STATUS& status = service.now.status;
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwWin32ExitCode = ERROR_PROCESS_ABORTED;
    status.dwWaitHint = 0;
    service.isRunning = false;
    if (m_listener) m_listener->OnReport(service.now);
}

}  // namespace Quellan::Platform
