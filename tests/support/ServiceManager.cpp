#include "support/ServiceManager.h"

#include "support/Eventually.h"

namespace Quellan::Corvel::Test {

bool ServiceManager::IsGone(const wchar_t* name) {
    const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const bool isGone = Eventually([&] {
        const SC_HANDLE service = OpenServiceW(manager, name, SERVICE_QUERY_STATUS);
        const DWORD code = service ? ERROR_SUCCESS : GetLastError();
        CloseServiceHandle(service);
        return code == ERROR_SERVICE_DOES_NOT_EXIST;
    });
    CloseServiceHandle(manager);
    return isGone;
}

}  // namespace Quellan::Corvel::Test
