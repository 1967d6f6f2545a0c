#include "support/ChildProcess.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace Quellan::Corvel::Test {

namespace {

// Both ends of a pipe; none is inherited.
struct Pipe {
    int read = -1, write = -1;
    Pipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        read = ends[0];
        write = ends[1];
    }
};

void Close(int& fd) {
    if (fd >= 0) close(std::exchange(fd, -1));
}

}  // namespace

struct ChildProcess::Native {
    pid_t id = -1;
    bool ended = false;
    int status = 0;
    int input = -1, output = -1;

    ~Native() {
        Close(input);
        Close(output);
    }
    void Wait() {
        if (ended) return;
        EXPECT_EQ(waitpid(id, &status, 0), id);
        ended = true;
    }
};

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments, Files files)
    : m_native(std::make_unique<Native>()) {
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    std::vector<std::string> line{(program.empty() ? self : self.parent_path() / program).string()};
    line.insert(line.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : line)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (files == Files::Piped) {
        Pipe input, output;
        posix_spawn_file_actions_adddup2(&actions, input.read, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output.write, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output.write, STDERR_FILENO);
        EXPECT_EQ(posix_spawn(&m_native->id, line[0].c_str(), &actions, nullptr, argv.data(), environ), 0);
        Close(input.read);
        Close(output.write);
        m_native->input = input.write;
        m_native->output = output.read;
    } else {
        EXPECT_EQ(posix_spawn(&m_native->id, line[0].c_str(), &actions, nullptr, argv.data(), environ), 0);
    }
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    Kill();
}

DWORD ChildProcess::Id() const {
    return static_cast<DWORD>(m_native->id);
}

void ChildProcess::Kill() {
    if (!m_native->ended) kill(m_native->id, SIGKILL);
    m_native->Wait();
}

void ChildProcess::Interrupt() {
    EXPECT_EQ(kill(m_native->id, SIGINT), 0);
}

bool ChildProcess::CanInterrupt() {
#if defined(__SANITIZE_THREAD__)
    return false;
#else
    return true;
#endif
}

int ChildProcess::ExitCode() {
    m_native->Wait();
    return WIFEXITED(m_native->status) ? WEXITSTATUS(m_native->status) : 128 + WTERMSIG(m_native->status);
}

void ChildProcess::Write(const std::string& text) {
    EXPECT_EQ(write(m_native->input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void ChildProcess::CloseInput() {
    Close(m_native->input);
}

std::string ChildProcess::ReadSome() {
    std::array<char, 4096> buffer;
    const ssize_t got = read(m_native->output, buffer.data(), buffer.size());
    EXPECT_GE(got, 0);
    return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
}

}  // namespace Quellan::Corvel::Test
