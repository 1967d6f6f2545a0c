#include "TQLib/platform/ActingUser.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Platform {

DWORD FindActingUser(UserKey& key) noexcept {
    static_assert(sizeof key.sid >= SECURITY_MAX_SID_SIZE);
    alignas(TOKEN_USER) BYTE user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!GetTokenInformation(GetCurrentThreadEffectiveToken(), TokenUser, user, sizeof user, &size))
        return GetLastError();
    const PSID sid = reinterpret_cast<const TOKEN_USER*>(user)->User.Sid;
    key.size = GetLengthSid(sid);
    std::memcpy(key.sid, sid, key.size);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
