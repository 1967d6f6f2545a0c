// What the service managers of the two systems offer in ways of their own.
#pragma once

#include "TQLib/platform/Types.h"

#include <span>

namespace Quellan::Platform {

// What ChangeServiceConfig2W is given: the structure that goes with the level.
struct ServiceSetting {
    DWORD level;
    void* info;
};

// CreateServiceW for a service that has these settings too. Null with the last error of either call; nothing is
// installed then. SERVICE_CONFIG_FAILURE_ACTIONS_FLAG is left out where the manager does not know it. On Linux
// the service is there with all of them or not at all, whoever is killed meanwhile.
SC_HANDLE CreateServiceWith(std::span<const ServiceSetting> settings, SC_HANDLE manager, const wchar_t* name,
                            const wchar_t* displayName, DWORD access, DWORD type, DWORD start,
                            DWORD errorControl, const wchar_t* commandLine, const wchar_t* dependencies,
                            const wchar_t* account, const wchar_t* password) noexcept;

// Ends the process of a service, with all services in it, without asking them: 0 when that is under way, or the
// platform's code, 1062 (ERROR_SERVICE_NOT_ACTIVE) where there is none. On Linux no failure actions follow.
// Needs SERVICE_STOP and SERVICE_QUERY_STATUS.
DWORD KillService(SC_HANDLE service) noexcept;

// Waits until the service's state or check point is not this any more, at most `ms` milliseconds; what it is then
// has to be asked for. On Windows it looks several times a second, on Linux the manager says. May return early.
// Needs SERVICE_QUERY_STATUS.
void AwaitServiceChange(SC_HANDLE service, DWORD state, DWORD checkPoint, DWORD ms) noexcept;

}  // namespace Quellan::Platform
