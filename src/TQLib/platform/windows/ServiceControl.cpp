#include "TQLib/platform/ServiceControl.h"

#include "TQLib/platform/Platform.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

// Between two looks at a service that somebody waits for.
constexpr DWORD FirstPollMs = 5;
constexpr DWORD LastPollMs = 200;

bool Set(SC_HANDLE service, const ServiceSetting& setting) noexcept {
    return ChangeServiceConfig2W(service, setting.level, setting.info) ||
           (setting.level == SERVICE_CONFIG_FAILURE_ACTIONS_FLAG && GetLastError() == ERROR_INVALID_LEVEL);
}

}  // namespace

SC_HANDLE CreateServiceWith(std::span<const ServiceSetting> settings, SC_HANDLE manager, const wchar_t* name,
                            const wchar_t* displayName, DWORD access, DWORD type, DWORD start,
                            DWORD errorControl, const wchar_t* commandLine, const wchar_t* dependencies,
                            const wchar_t* account, const wchar_t* password) noexcept {
    const SC_HANDLE service = CreateServiceW(manager, name, displayName, access, type, start, errorControl,
                                             commandLine, nullptr, nullptr, dependencies, account, password);
    if (!service || std::ranges::all_of(settings, [&](const auto& setting) { return Set(service, setting); }))
        return service;
    const DWORD code = GetLastError();
    DeleteService(service);
    CloseServiceHandle(service);
    SetLastError(code);
    return nullptr;
}

DWORD KillService(SC_HANDLE service) noexcept {
    SERVICE_STATUS_PROCESS status;
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                              sizeof status, &needed))
        return GetLastError();
    if (status.dwProcessId == 0) return ERROR_SERVICE_NOT_ACTIVE;
    const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, status.dwProcessId);
    if (!process) return GetLastError();
    const DWORD code = TerminateProcess(process, ERROR_PROCESS_ABORTED) ? ERROR_SUCCESS : GetLastError();
    CloseHandle(process);
    return code;
}

void AwaitServiceChange(SC_HANDLE service, DWORD state, DWORD checkPoint, DWORD ms) noexcept {
    for (DWORD pause = FirstPollMs; ms > 0; pause = std::min(2 * pause, LastPollMs)) {
        Sleep(std::min(pause, ms));
        if (ms != INFINITE) ms -= std::min(pause, ms);
        SERVICE_STATUS status;
        if (!QueryServiceStatus(service, &status) || status.dwCurrentState != state ||
            status.dwCheckPoint != checkPoint)
            return;
    }
}

}  // namespace Quellan::Platform
