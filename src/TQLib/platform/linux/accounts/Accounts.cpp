#include "TQLib/platform/linux/accounts/Accounts.h"

#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <unistd.h>

namespace Quellan::Platform {

namespace {

// Without an answer in time the platform reports an account that it did not find.
DWORD ReportedCode(DWORD code) noexcept {
    return code == ERROR_TIMEOUT ? ERROR_NONE_MAPPED : code;
}

bool Fits(std::wstring_view text, const wchar_t* buffer, DWORD size) noexcept {
    return buffer && text.size() < size;
}

// Tells the size needed, or fills the buffer and tells the size used.
void PutText(std::wstring_view text, bool fits, wchar_t* buffer, DWORD& size) noexcept {
    if (fits) CopyOut(text, buffer, size);
    size = static_cast<DWORD>(fits ? text.size() : text.size() + 1);
}

DWORD LookUpSid(const void* sid, wchar_t* name, DWORD& nameSize, wchar_t* domain, DWORD& domainSize,
                SID_NAME_USE& use) {
    AccountName found;
    if (DWORD code = FindNameOf(sid, found, DirectoryDeadline())) return code;
    const bool fits = Fits(found.name, name, nameSize) && Fits(found.domain, domain, domainSize);
    PutText(found.name, fits, name, nameSize);
    PutText(found.domain, fits, domain, domainSize);
    if (!fits) return ERROR_INSUFFICIENT_BUFFER;
    use = found.use;
    return ERROR_SUCCESS;
}

DWORD LookUpName(const wchar_t* account, PSID sid, DWORD& sidSize, wchar_t* domain, DWORD& domainSize,
                 SID_NAME_USE& use) {
    SidValue value;
    AccountName found;
    if (DWORD code = FindSidOf(account, value, found, DirectoryDeadline())) return code;
    const bool fits = sid && sidSize >= value.Length() && Fits(found.domain, domain, domainSize);
    sidSize = value.Length();
    PutText(found.domain, fits, domain, domainSize);
    if (!fits) return ERROR_INSUFFICIENT_BUFFER;
    std::memcpy(sid, &value, value.Length());
    use = found.use;
    return ERROR_SUCCESS;
}

DWORD ReadUserName(wchar_t* name, DWORD& size) {
    UserRecord user;
    if (DWORD code = FindUser(DWORD{geteuid()}, user, DirectoryDeadline())) return code;
    const std::wstring text = ToWide(user.name);
    const bool fits = Fits(text, name, size);
    if (fits) CopyOut(text, name, size);
    size = static_cast<DWORD>(text.size() + 1);
    return fits ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER;
}

}  // namespace

BOOL LookupAccountSidW(const wchar_t* system, PSID sid, wchar_t* name, DWORD* nameSize, wchar_t* domain,
                       DWORD* domainSize, SID_NAME_USE* use) noexcept {
    if (DWORD code = FaultDue("LookupAccountSidW")) return Fail(code, FALSE);
    if (!nameSize || !domainSize || !use) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsThisMachine(system)) return Fail(RPC_S_SERVER_UNAVAILABLE, FALSE);
    if (!IsSid(sid)) return Fail(ERROR_INVALID_SID, FALSE);
    const DWORD code = WithMemory([&] { return LookUpSid(sid, name, *nameSize, domain, *domainSize, *use); });
    return code ? Fail(ReportedCode(code), FALSE) : TRUE;
}

BOOL LookupAccountNameW(const wchar_t* system, const wchar_t* account, PSID sid, DWORD* sidSize,
                        wchar_t* domain, DWORD* domainSize, SID_NAME_USE* use) noexcept {
    if (DWORD code = FaultDue("LookupAccountNameW")) return Fail(code, FALSE);
    if (!account || !sidSize || !domainSize || !use) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!IsThisMachine(system)) return Fail(RPC_S_SERVER_UNAVAILABLE, FALSE);
    const DWORD code =
        WithMemory([&] { return LookUpName(account, sid, *sidSize, domain, *domainSize, *use); });
    return code ? Fail(ReportedCode(code), FALSE) : TRUE;
}

BOOL GetUserNameW(wchar_t* name, DWORD* size) noexcept {
    if (DWORD code = FaultDue("GetUserNameW")) return Fail(code, FALSE);
    if (!size) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] { return ReadUserName(name, *size); });
    return code ? Fail(ReportedCode(code), FALSE) : TRUE;
}

}  // namespace Quellan::Platform
