#include "TQLib/platform/Platform.h"
#include "TQLib/services/internal/Parent.h"

#include <cwchar>
#include <tlhelp32.h>

namespace Quellan::Corvel {

namespace {

// False when there is no such process in the list.
bool Find(HANDLE list, DWORD process, PROCESSENTRY32W& entry) noexcept {
    entry.dwSize = sizeof entry;
    for (BOOL found = Process32FirstW(list, &entry); found; found = Process32NextW(list, &entry))
        if (entry.th32ProcessID == process) return true;
    return false;
}

}  // namespace

// The manager starts the processes of services itself.
bool MayBeStartedByManager() noexcept {
    const HANDLE list = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (list == INVALID_HANDLE_VALUE) return true;
    PROCESSENTRY32W self, parent;
    const bool isSelfKnown = Find(list, GetCurrentProcessId(), self);
    const bool isParentKnown = isSelfKnown && Find(list, self.th32ParentProcessID, parent);
    CloseHandle(list);
    if (!isSelfKnown) return true;
    return isParentKnown && _wcsicmp(parent.szExeFile, L"services.exe") == 0;
}

}  // namespace Quellan::Corvel
