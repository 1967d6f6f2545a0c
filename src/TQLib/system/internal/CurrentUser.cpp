#include "TQLib/system/internal/CurrentUser.h"

#include "TQLib/core/internal/CallFailure.h"

namespace Quellan::Corvel {

UserBlock::UserBlock() {
    DWORD size = 0;
    if (!GetTokenInformation(GetCurrentThreadEffectiveToken(), TokenUser, m_user, sizeof m_user, &size))
        ThrowCallFailure(L"TQSysProc::CurrentUser");
}

}  // namespace Quellan::Corvel
