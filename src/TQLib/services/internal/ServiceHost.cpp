#include "TQLib/services/internal/ServiceHost.h"

#include "TQLib/services/internal/Parent.h"

#include <atomic>

namespace Quellan::Corvel {

namespace {

constinit std::atomic<ServiceHost*> g_host{nullptr};

}  // namespace

ServiceHost::~ServiceHost() = default;

BOOL ServiceHost::Dispatch(const SERVICE_TABLE_ENTRYW* table) {
    if (!MayBeStartedByManager()) {
        SetLastError(ERROR_FAILED_SERVICE_CONTROLLER_CONNECT);
        return FALSE;
    }
    return StartServiceCtrlDispatcherW(table);
}

SERVICE_STATUS_HANDLE ServiceHost::RegisterHandler(const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                                   void* context) {
    return RegisterServiceCtrlHandlerExW(name, handler, context);
}

BOOL ServiceHost::SetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) {
    return SetServiceStatus(handle, status);
}

ServiceHost& ServiceHost::Current() noexcept {
    static ServiceHost platform;
    ServiceHost* const host = g_host;
    return host ? *host : platform;
}

ServiceHostScope::ServiceHostScope(ServiceHost& host) noexcept : m_previous(g_host.exchange(&host)) {}

ServiceHostScope::~ServiceHostScope() {
    g_host = m_previous;
}

}  // namespace Quellan::Corvel
