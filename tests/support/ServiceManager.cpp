#include "support/ServiceManager.h"

#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {

bool ServiceManager::IsGone(const wchar_t* name) {
    constexpr DWORD LimitMs = 60'000, LookMs = 5;
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    DWORD code = ERROR_SUCCESS;
    for (const ULONGLONG end = GetTickCount64() + LimitMs;; Sleep(LookMs)) {
        const SC_HANDLE service = OpenServiceW(manager, name, SERVICE_QUERY_STATUS);
        code = service ? ERROR_SUCCESS : GetLastError();
        CloseServiceHandle(service);
        if (code != ERROR_SUCCESS || GetTickCount64() >= end) break;
    }
    CloseServiceHandle(manager);
    return code == ERROR_SERVICE_DOES_NOT_EXIST;
}

}  // namespace Quellan::Corvel::Test
