#include "log/TQLog.h"
#include "platform/Win32.h"
#include "security/SecACL.h"
#include "security/SecDesc.h"
#include "security/SecID.h"

namespace Quellan::Corvel {

using Sarvek::SecID;

// Mode 0640, as for logs of this system: who may write could forge records, and "users" would be everybody,
// the accounts of all services included.
Sarvek::SecAttr TQLog::GetLogSecurity() {
    Sarvek::SecACL list;
    list.Allow(SecID(WinBuiltinAdministratorsSid), FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY);
    list.Allow(SecID(WinCreatorOwnerSid), FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    list.Allow(SecID(WinCreatorGroupSid), FILE_GENERIC_READ);
    return Sarvek::SecAttr(Sarvek::SecDesc().SetDACL(std::move(list)));
}

}  // namespace Quellan::Corvel
