// Failures of the service manager's calls as exceptions that say what is wrong with which service.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Throws `TQSysException` with the code and a text for it; `name` is the service's, null for the manager.
[[noreturn]] void ThrowServiceFailure(DWORD code, const wchar_t* name);
// With the calling thread's last error.
[[noreturn]] void ThrowServiceFailure(const wchar_t* name);

}  // namespace Quellan::Corvel
