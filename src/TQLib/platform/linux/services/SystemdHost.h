// Services that systemd starts: it is told their states, and its signals are their controls
// (docs/service-manager.md).
#pragma once

#include "TQLib/platform/linux/services/HostedServices.h"

namespace Quellan::Platform {

// Runs all services of the table and returns when they have stopped. `socket` is what NOTIFY_SOCKET says. May
// throw std::bad_alloc.
DWORD RunUnderSystemd(HostedServices& host, const std::string& socket);

}  // namespace Quellan::Platform
