// Tests with several processes: the test program starts itself again in a role.
#pragma once

#include "support/ChildProcess.h"

#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

using RoleArguments = std::vector<std::string>;

// What the program does when it is started in the role `name`; `body` returns the exit code, below 128.
// Defined at namespace scope of a test.
class Role {
  public:
    Role(const char* name, int (*body)(const RoleArguments& arguments));

    // Runs the role that the program was started in, if it was. The exit code is then in `exitCode`.
    static bool Run(int argc, char** argv, int& exitCode);
};

// A process of this program in a role.
class RoleProcess : public ChildProcess {
  public:
    explicit RoleProcess(const char* role, const RoleArguments& arguments = {},
                         Files files = Files::Inherited);
};

}  // namespace Quellan::Corvel::Test
