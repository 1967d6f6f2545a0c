#include "system/internal/CurrentUser.h"

#include "core/TQException.h"

namespace Quellan::Corvel {

UserBlock::UserBlock() {
    DWORD size = 0;
    if (!GetTokenInformation(GetCurrentThreadEffectiveToken(), TokenUser, m_user, sizeof m_user, &size))
        TQSysException::ThrowLastError(L"TQSysProc::CurrentUser");
}

}  // namespace Quellan::Corvel
