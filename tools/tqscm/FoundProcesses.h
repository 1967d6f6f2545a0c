// What a process is, as the kernel tells it: for those that a manager finds and knows nothing else of.
#pragma once

#include "Journal.h"

#include <vector>

namespace tqscm {

// The processes that a manager of this socket has started for services. Those that hide it are not found.
std::vector<ProcessId> FindServiceProcesses(const std::string& socket);

// Whether `user` is the account's and the process runs the command line's program. Looks the account up: not
// on the loop's thread.
bool IsProcessOf(pid_t pid, uid_t user, const std::string& commandLine, const std::string& account);

}  // namespace tqscm
