// Starting the programs of services.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Base.h"
#include "TQLib/platform/linux/base/Descriptor.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace tqscm {

// As whom a program runs.
struct Account {
    bool isOwn = true;  // the manager's own user, and nothing below
    std::string name;
    std::string home;
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;
};

// Whether a name stands for the manager's own user without being looked up.
bool IsOwnAccount(const std::string& name);
// Looks a name up, which takes as long as the system's name services do: not on the loop's thread. 1057
// (ERROR_INVALID_SERVICE_ACCOUNT) where there is no such account or it is not for this manager to take, or what
// keeps it from being looked up. From any thread.
DWORD FindAccount(const std::string& name, Account& account);

// What a command line is made of, the program first. From any thread.
std::vector<std::string> ReadWords(const std::string& commandLine);

// Lets this process have as many descriptors as it may. What is launched has the limit that was there before.
void AllowManyDescriptors();

// A process that was made for a program.
struct Launched {
    pid_t pid = 0;
    Quellan::Platform::Descriptor failure;  // what it says where it cannot run it
};

// A process in a session of its own, with the account's identity, in the root folder, its standard input
// empty, no other descriptors but the standard ones and all signals as usual. With `socket` it is told where
// the manager is and that this has started it. Waits for nothing: a process that cannot run the program ends, and
// `LaunchFailure` says why.
DWORD Launch(const std::string& commandLine, const Account& account, const std::string& socket,
             Launched& launched);
// What kept a process that has ended from running the program: 2, 3, 5 or another code, 0 where nothing did.
DWORD LaunchFailure(const Launched& launched);

}  // namespace tqscm
