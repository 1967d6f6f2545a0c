// Tests with several processes: the test program starts itself again in a role.
#pragma once

#include "platform/Types.h"

#include <memory>
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

// A process of this program in a role. Arguments hold no blanks and no quotation marks.
class RoleProcess {
  public:
    explicit RoleProcess(const char* role, const RoleArguments& arguments = {});
    RoleProcess(const RoleProcess&) = delete;
    RoleProcess& operator=(const RoleProcess&) = delete;
    // Kills the process if it still runs.
    ~RoleProcess();

    // Without warning; returns when nothing of the process is left.
    void Kill();
    // Waits for the end of the process.
    int ExitCode();

  private:
    struct Native;
    std::unique_ptr<Native> m_native;
};

}  // namespace Quellan::Corvel::Test
