// Starting the programs of services.
#pragma once

#include "platform/linux/Base.h"

#include <string>
#include <sys/types.h>

namespace tqscm {

// Whether services may run as this account: 0 or 1057 (ERROR_INVALID_SERVICE_ACCOUNT).
DWORD CheckAccount(const std::string& account);

// A process in a session of its own, with the account's identity, in the root folder, its standard input
// empty. With `socket` it is told where the manager is and that this has started it. 2, 3, 5 or what else
// keeps the program from being run, 1069 (ERROR_SERVICE_LOGON_FAILED) without the account.
DWORD Launch(const std::string& commandLine, const std::string& account, const std::string& socket,
             pid_t& pid);

}  // namespace tqscm
