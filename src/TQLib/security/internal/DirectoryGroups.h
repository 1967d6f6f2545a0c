// Groups that a directory service tells.
#pragma once

#include "TQLib/security/SecIDArray.h"

namespace Quellan::Sarvek {

// The groups that the account of that identifier belongs to, directly or by way of others. On Windows COM
// must be ready on the calling thread. On Linux 50 (ERROR_NOT_SUPPORTED): there the system's own groups
// include a directory's.
SecIDArray DirectoryGroups(const SecID& id);

}  // namespace Quellan::Sarvek
