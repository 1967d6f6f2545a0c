#include "support/Role.h"

#include <map>

namespace Quellan::Corvel::Test {

static std::map<std::string, int (*)(const RoleArguments&)>& Roles() {
    static std::map<std::string, int (*)(const RoleArguments&)> roles;
    return roles;
}

Role::Role(const char* name, int (*body)(const RoleArguments& arguments)) {
    Roles().emplace(name, body);
}

bool Role::Run(int argc, char** argv, int& exitCode) {
    const std::string prefix = "--role=";
    if (argc < 2 || std::string(argv[1]).rfind(prefix, 0) != 0) return false;
    exitCode = Roles().at(argv[1] + prefix.size())(RoleArguments(argv + 2, argv + argc));
    return true;
}

static RoleArguments RoleLine(const char* role, const RoleArguments& arguments) {
    RoleArguments line{std::string("--role=") + role};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return line;
}

RoleProcess::RoleProcess(const char* role, const RoleArguments& arguments, Files files)
    : ChildProcess("", RoleLine(role, arguments), files) {}

}  // namespace Quellan::Corvel::Test
