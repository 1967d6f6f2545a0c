#include "platform/Win32.h"
#include "support/Role.h"

#include <gtest/gtest.h>

namespace Quellan::Corvel::Test {

struct RoleProcess::Native {
    HANDLE process = nullptr;
};

RoleProcess::RoleProcess(const char* role, const RoleArguments& arguments)
    : m_native(std::make_unique<Native>()) {
    char program[MAX_PATH];
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string line = std::string("\"") + program + "\" --role=" + role;
    for (const std::string& argument : arguments)
        line += ' ' + argument;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    EXPECT_TRUE(CreateProcessA(program, line.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                               &started))
        << GetLastError();
    m_native->process = started.hProcess;
    CloseHandle(started.hThread);
}

RoleProcess::~RoleProcess() {
    Kill();
    CloseHandle(m_native->process);
}

void RoleProcess::Kill() {
    TerminateProcess(m_native->process, 255);
    WaitForSingleObject(m_native->process, INFINITE);
}

int RoleProcess::ExitCode() {
    WaitForSingleObject(m_native->process, INFINITE);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeProcess(m_native->process, &code)) << GetLastError();
    return static_cast<int>(code);
}

}  // namespace Quellan::Corvel::Test
