#include "ChildEnd.h"

#include <csignal>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace tqscm {

namespace {

// Between looking whether a process has ended for which there is no descriptor.
constexpr std::chrono::milliseconds PollPause{200};

// Whether there is no such process any more. `error` is that of pidfd_open.
bool HasEnded(pid_t pid, int error) {
    siginfo_t info{};
    if (error == ESRCH) return true;
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG) == 0) return info.si_pid == pid;
    return kill(pid, 0) != 0 && errno == ESRCH;  // somebody else's child
}

}  // namespace

void ChildEnd::Watch(EventLoop& loop, pid_t pid, std::function<void()> atEnd) {
    Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    if (!process) {
        if (HasEnded(pid, errno)) return loop.After({}, std::move(atEnd));
        return loop.After(PollPause, [&loop, pid, atEnd = std::move(atEnd)] { Watch(loop, pid, atEnd); });
    }
    const int fd = process.Get();
    loop.Watch(fd, EPOLLIN,
               std::unique_ptr<ChildEnd>(new ChildEnd(loop, std::move(process), std::move(atEnd))));
}

void ChildEnd::OnReady(unsigned) {
    // Nothing to fetch where somebody else has started it.
    siginfo_t info;
    waitid(P_PIDFD, static_cast<id_t>(m_process.Get()), &info, WEXITED | WNOHANG);
    m_loop.Forget(m_process.Get(), *this);
    m_atEnd();
}

}  // namespace tqscm
