#include "ChildEnd.h"

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace tqscm {

void ChildEnd::Watch(EventLoop& loop, pid_t pid, std::function<void()> atEnd) {
    Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    const int fd = process.Get();
    std::unique_ptr<ChildEnd> watch(new ChildEnd(loop, std::move(process), std::move(atEnd)));
    if (fd >= 0) return loop.Watch(fd, EPOLLIN, std::move(watch));
    const auto later = std::make_shared<Timer>(loop);
    later->Set({}, [later, end = watch->m_atEnd] { end(); });
}

void ChildEnd::OnReady(unsigned) {
    // Nothing to fetch where somebody else has started it.
    siginfo_t info;
    waitid(P_PIDFD, static_cast<id_t>(m_process.Get()), &info, WEXITED | WNOHANG);
    m_loop.Forget(m_process.Get(), *this);
    m_atEnd();
}

}  // namespace tqscm
