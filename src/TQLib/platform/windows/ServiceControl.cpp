#include "TQLib/platform/ServiceControl.h"

#include "TQLib/platform/Platform.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

// Between two looks at a service that somebody waits for.
constexpr DWORD FirstPollMs = 5;
constexpr DWORD LastPollMs = 200;

}  // namespace

DWORD KillService(SC_HANDLE service) noexcept {
    SERVICE_STATUS_PROCESS status;
    DWORD needed = 0;
    if (!QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof status,
                              &needed))
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
