#include "log/TQLog.h"
#include "platform/Win32.h"
#include "security/SecACL.h"
#include "security/SecDesc.h"
#include "security/SecID.h"

namespace Quellan::Corvel {

using Sarvek::SecID;

Sarvek::SecAttr TQLog::GetLogSecurity() {
    Sarvek::SecACL list;
    list.Allow(SecID(WinBuiltinAdministratorsSid), FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY);
    list.Allow(SecID(WinBuiltinUsersSid), FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    return Sarvek::SecAttr(Sarvek::SecDesc().SetDACL(std::move(list)));
}

}  // namespace Quellan::Corvel
