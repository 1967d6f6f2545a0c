#include "platform/linux/internal/ServiceHost.h"

#include "platform/linux/Handles.h"
#include "platform/linux/Threads.h"
#include "platform/linux/internal/Case.h"
#include "platform/linux/internal/HandleTable.h"
#include "platform/linux/internal/Wide.h"

#include <algorithm>

namespace Quellan::Corvel::Platform {

namespace {

constexpr DWORD FirstWaitHintMs = 2000;
constexpr DWORD KnownControls = 0x7FFF;

bool IsValidStatus(const SERVICE_STATUS& status) noexcept {
    const bool type = status.dwServiceType == SERVICE_WIN32_OWN_PROCESS ||
                      status.dwServiceType == SERVICE_WIN32_SHARE_PROCESS;
    const bool state = status.dwCurrentState >= SERVICE_STOPPED && status.dwCurrentState <= SERVICE_PAUSED;
    return type && state && !(status.dwControlsAccepted & ~KnownControls);
}

struct MainCall {
    LPSERVICE_MAIN_FUNCTIONW main;
    std::vector<std::wstring> arguments;
};

DWORD CallMain(void* parameter) {
    const std::unique_ptr<MainCall> call(static_cast<MainCall*>(parameter));
    std::vector<wchar_t*> pointers;
    for (std::wstring& argument : call->arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    call->main(static_cast<DWORD>(call->arguments.size()), pointers.data());
    return 0;
}

}  // namespace

struct ServiceHost::Hosted {
    std::wstring tableName;
    LPSERVICE_MAIN_FUNCTIONW main;
    std::string name;  // as it was started
    bool wasStarted = false;
    bool isRunning = false;  // started, and not reported as stopped since
    bool isAlone = false;
    SERVICE_STATUS status{};
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    HANDLE statusHandle = nullptr;
};

// What a status handle names, as long as that run of the service lasts.
struct ServiceHost::StatusTarget : Object {
    static constexpr ObjectKind Kind{.name = "service status", .closedByCloseHandle = false};

    explicit StatusTarget(Hosted& reporting) noexcept : Object(Kind), service(reporting) {}
    Hosted& service;
};

ServiceHost& ServiceHost::Instance() {
    alignas(ServiceHost) static std::byte memory[sizeof(ServiceHost)];
    static ServiceHost& instance = *new (memory) ServiceHost;
    return instance;
}

DWORD ServiceHost::SetTable(const SERVICE_TABLE_ENTRYW* table) {
    std::vector<std::unique_ptr<Hosted>> services;
    for (; table && table->lpServiceName; ++table) {
        if (!table->lpServiceProc) return ERROR_INVALID_DATA;
        services.push_back(std::make_unique<Hosted>());
        services.back()->tableName = table->lpServiceName;
        services.back()->main = table->lpServiceProc;
    }
    if (services.empty()) return table ? ERROR_INVALID_DATA : ERROR_INVALID_PARAMETER;
    const std::scoped_lock lock(m_lock);
    if (!m_services.empty()) return ERROR_SERVICE_ALREADY_RUNNING;
    m_services = std::move(services);
    return ERROR_SUCCESS;
}

std::vector<std::string> ServiceHost::Names() {
    const std::scoped_lock lock(m_lock);
    std::vector<std::string> names;
    for (const auto& service : m_services)
        names.push_back(ToUtf8(service->tableName));
    return names;
}

void ServiceHost::SetListener(ServiceListener* listener) {
    const std::scoped_lock lock(m_lock);
    m_listener = listener;
}

ServiceHost::Hosted* ServiceHost::FindInTable(const RunMessage& run) {
    const std::wstring name = ToWide(run.name);
    const auto found = std::ranges::find_if(
        m_services, [&](const auto& service) { return CompareOrdinal(service->tableName, name, true) == 0; });
    if (found != m_services.end()) return found->get();
    return run.isAlone ? m_services.front().get() : nullptr;
}

ServiceHost::Hosted* ServiceHost::FindRunning(const wchar_t* name) {
    const auto found = std::ranges::find_if(m_services, [&](const auto& service) {
        return service->isRunning &&
               (service->isAlone || CompareOrdinal(service->tableName, name, true) == 0);
    });
    return found != m_services.end() ? found->get() : nullptr;
}

DWORD ServiceHost::Run(const RunMessage& run) {
    auto call = std::make_unique<MainCall>();
    call->arguments.push_back(ToWide(run.name));
    for (const std::string& argument : run.arguments)
        call->arguments.push_back(ToWide(argument));
    Hosted* service = nullptr;
    {
        const std::scoped_lock lock(m_lock);
        service = FindInTable(run);
        if (!service) return ERROR_SERVICE_NOT_IN_EXE;
        if (service->isRunning) return ERROR_SERVICE_ALREADY_RUNNING;
        call->main = service->main;
        service->name = run.name;
        service->wasStarted = service->isRunning = true;
        service->isAlone = run.isAlone != 0;
        service->handler = nullptr;
        service->status = {};
        service->status.dwServiceType = run.isAlone ? SERVICE_WIN32_OWN_PROCESS : SERVICE_WIN32_SHARE_PROCESS;
        service->status.dwCurrentState = SERVICE_START_PENDING;
        service->status.dwWaitHint = FirstWaitHintMs;
    }
    const HANDLE thread = CreateThread(nullptr, 0, &CallMain, call.get(), 0, nullptr);
    if (!thread) {
        const std::scoped_lock lock(m_lock);
        service->wasStarted = service->isRunning = false;
        return ERROR_SERVICE_NO_THREAD;
    }
    static_cast<void>(call.release());  // the thread's
    CloseHandle(thread);
    return ERROR_SUCCESS;
}

DWORD ServiceHost::Control(const std::string& name, DWORD control) {
    LPHANDLER_FUNCTION_EX handler = nullptr;
    void* context = nullptr;
    {
        const std::scoped_lock lock(m_lock);
        const auto found = std::ranges::find_if(
            m_services, [&](const auto& service) { return service->isRunning && service->name == name; });
        if (found == m_services.end()) return ERROR_SERVICE_NOT_ACTIVE;
        handler = (*found)->handler;
        context = (*found)->context;
    }
    return handler ? handler(control, 0, nullptr, context) : ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
}

std::vector<NamedStatus> ServiceHost::StatusesLocked() {
    std::vector<NamedStatus> statuses;
    for (const auto& service : m_services)
        if (service->wasStarted) statuses.push_back({service->name, service->status});
    return statuses;
}

std::vector<NamedStatus> ServiceHost::Statuses() {
    return WithStatuses([](std::vector<NamedStatus> statuses) { return statuses; });
}

bool ServiceHost::AreAllStopped() {
    const std::scoped_lock lock(m_lock);
    return std::ranges::none_of(m_services, [](const auto& service) { return service->isRunning; });
}

DWORD ServiceHost::Register(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context,
                            SERVICE_STATUS_HANDLE& handle) {
    const std::scoped_lock lock(m_lock);
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

DWORD ServiceHost::Report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status) {
    const HandleRef<StatusTarget> target(handle);
    if (!target) return ERROR_INVALID_HANDLE;
    if (!IsValidStatus(status)) return ERROR_INVALID_DATA;
    const std::scoped_lock lock(m_lock);
    Hosted& service = target->service;
    if (service.statusHandle != handle) return ERROR_INVALID_HANDLE;  // stopped by another thread
    NamedStatus report{service.name, status};
    service.status = status;
    if (status.dwCurrentState == SERVICE_STOPPED) {
        service.isRunning = false;
        CloseHandleOf(std::exchange(service.statusHandle, nullptr), &StatusTarget::Kind);
    }
    if (m_listener) m_listener->OnReport(report);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Corvel::Platform
