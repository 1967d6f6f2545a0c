// The user as whom a thread acts.
#pragma once

#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

// The identifier of the calling thread's user when this was made, in a block of its own: without memory and
// without a handle. Throws `TQSysException` with the platform's code.
class UserBlock {
  public:
    UserBlock();

    PSID Sid() const noexcept { return reinterpret_cast<const TOKEN_USER*>(m_user)->User.Sid; }

  private:
    alignas(TOKEN_USER) BYTE m_user[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
};

}  // namespace Quellan::Corvel
