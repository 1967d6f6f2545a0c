// What the service managers of the two systems offer in ways of their own.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// Ends the process of a service, with all services in it, without asking them: 0 when that is under way, or the
// platform's code, 1062 (ERROR_SERVICE_NOT_ACTIVE) where there is none. On Linux no failure actions follow.
// Needs SERVICE_STOP and SERVICE_QUERY_STATUS.
DWORD KillService(SC_HANDLE service) noexcept;

// Waits until the service's state or check point is not this any more, at most `ms` milliseconds; what it is then
// has to be asked for. On Windows it looks several times a second, on Linux the manager says. May return early.
// Needs SERVICE_QUERY_STATUS.
void AwaitServiceChange(SC_HANDLE service, DWORD state, DWORD checkPoint, DWORD ms) noexcept;

}  // namespace Quellan::Platform
