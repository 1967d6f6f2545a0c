#include "support/Role.h"

#include <csignal>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {

struct RoleProcess::Native {
    pid_t id = -1;
    bool ended = false;
    int status = 0;

    void Wait() {
        if (ended) return;
        EXPECT_EQ(waitpid(id, &status, 0), id);
        ended = true;
    }
};

RoleProcess::RoleProcess(const char* role, const RoleArguments& arguments)
    : m_native(std::make_unique<Native>()) {
    RoleArguments line{"/proc/self/exe", std::string("--role=") + role};
    line.insert(line.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : line)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    EXPECT_EQ(posix_spawn(&m_native->id, line[0].c_str(), nullptr, nullptr, argv.data(), environ), 0);
}

RoleProcess::~RoleProcess() {
    Kill();
}

void RoleProcess::Kill() {
    if (!m_native->ended) kill(m_native->id, SIGKILL);
    m_native->Wait();
}

int RoleProcess::ExitCode() {
    m_native->Wait();
    return WIFEXITED(m_native->status) ? WEXITSTATUS(m_native->status) : 128 + WTERMSIG(m_native->status);
}

}  // namespace Quellan::Corvel::Test
