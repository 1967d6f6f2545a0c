#include "TQLib/platform/linux/accounts/Privileges.h"

#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/PrivilegeNames.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"

namespace Quellan::Platform {

BOOL LookupPrivilegeValueW(const wchar_t* system, const wchar_t* name, LUID* privilege) noexcept {
    if (DWORD code = FaultDue("LookupPrivilegeValueW")) return Fail(code, FALSE);
    if (!IsThisMachine(system)) return Fail(RPC_S_SERVER_UNAVAILABLE, FALSE);
    if (!name || !privilege) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const Privilege* const found = FindPrivilege(name);
    if (!found) return Fail(ERROR_NO_SUCH_PRIVILEGE, FALSE);
    *privilege = {found->number, 0};
    return TRUE;
}

BOOL LookupPrivilegeNameW(const wchar_t* system, LUID* privilege, wchar_t* name, DWORD* size) noexcept {
    if (DWORD code = FaultDue("LookupPrivilegeNameW")) return Fail(code, FALSE);
    if (!IsThisMachine(system)) return Fail(RPC_S_SERVER_UNAVAILABLE, FALSE);
    if (!privilege || !size) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const Privilege* const found = FindPrivilege(*privilege);
    if (!found) return Fail(ERROR_NO_SUCH_PRIVILEGE, FALSE);
    const std::wstring_view text = found->name;
    const bool fits = name && CopyOut(text, name, *size);
    *size = static_cast<DWORD>(fits ? text.size() : text.size() + 1);
    return fits ? TRUE : Fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
}

}  // namespace Quellan::Platform
