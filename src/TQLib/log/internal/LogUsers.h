// The users that records name.
#pragma once

#include "TQLib/platform/Types.h"

#include <memory>
#include <string>

namespace Quellan::Corvel {

// "NAME {S-1-...}" for the user as whom the calling thread acts. What the system says of an account is kept:
// to ask for it may take seconds. Throws as `TQSysProc::CurrentUser` and `SecID` do, or std::bad_alloc. For
// any thread.
std::shared_ptr<const std::wstring> CurrentLogUser();

}  // namespace Quellan::Corvel
