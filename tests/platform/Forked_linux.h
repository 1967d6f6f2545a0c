// The child of a fork, in tests of what it has and has not.
#pragma once

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {

// Runs `body` in a child; killed when this ends, if it still lives.
class Forked {
  public:
    template <class Body>
    explicit Forked(Body body) : m_id(fork()) {
        if (m_id == 0) _exit(body());
    }
    Forked(const Forked&) = delete;
    Forked& operator=(const Forked&) = delete;
    ~Forked() {
        if (m_id <= 0) return;
        kill(m_id, SIGKILL);
        waitpid(m_id, nullptr, 0);
    }

    // What the body returned; waits for it.
    int Code() {
        int status = -1;
        waitpid(m_id, &status, 0);
        m_id = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    pid_t m_id;
};

// For a child that does nothing but live.
inline int LiveOn() {
    for (;;)
        pause();
}

}  // namespace Quellan::Corvel::Test
