// The file that says which rights accounts have (docs/formats/account-rights.md).
#pragma once

#include "TQLib/platform/linux/accounts/RightsText.h"

namespace Quellan::Platform {

// Where there is no file, the defaults hold (DefaultAccountRights), and the first change writes them down.
// These may throw std::bad_alloc.
DWORD ReadRights(const SidValue& account, RightNames& rights);
// 1332 (ERROR_NONE_MAPPED) to take rights from an account without any.
DWORD AddRights(const SidValue& account, const RightNames& rights);
DWORD RemoveRights(const SidValue& account, const RightNames& rights);
DWORD RemoveAllRights(const SidValue& account);

}  // namespace Quellan::Platform
