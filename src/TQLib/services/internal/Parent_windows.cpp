#include "TQLib/platform/Platform.h"
#include "TQLib/services/internal/Parent.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

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
    const TQUniqueHandle<_TQFileHandleClose> list(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!list) return true;
    PROCESSENTRY32W self, parent;
    if (!Find(list.Get(), GetCurrentProcessId(), self)) return true;
    return Find(list.Get(), self.th32ParentProcessID, parent) &&
           _wcsicmp(parent.szExeFile, L"services.exe") == 0;
}

}  // namespace Quellan::Corvel
