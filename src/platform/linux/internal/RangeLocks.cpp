#include "platform/linux/internal/RangeLocks.h"

#include "platform/linux/Errors.h"
#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/Errno.h"
#include "platform/linux/internal/ShareModes.h"

#include <algorithm>
#include <chrono>
#include <csignal>

namespace Quellan::Corvel::Platform {

namespace {

// A signal that interrupts system calls and does nothing else: the last of the real-time signals for which
// nobody had a handler. 0 when there is none.
int FindInterruption() noexcept {
    for (int number = SIGRTMAX; number >= SIGRTMIN; --number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) continue;
        action = {};
        action.sa_handler = [](int) {};  // without SA_RESTART
        if (sigaction(number, &action, nullptr) == 0) return number;
    }
    return 0;
}

// Interrupts the calling thread's system calls from the deadline on, again and again: once might be just
// before the call.
class Alarm {
  public:
    explicit Alarm(Deadline deadline) noexcept {
        static const int signal = FindInterruption();
        if (signal == 0) return;
        sigset_t wanted;
        sigemptyset(&wanted);
        sigaddset(&wanted, signal);
        pthread_sigmask(SIG_UNBLOCK, &wanted, &m_previous);
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = signal;
        event._sigev_un._tid = gettid();
        m_isSet = timer_create(CLOCK_MONOTONIC, &event, &m_timer) == 0;
        if (!m_isSet) {
            pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
            return;
        }
        constexpr long AgainNs = 2'000'000;
        const itimerspec time{.it_interval = {0, AgainNs}, .it_value = TimeOf(deadline)};
        timer_settime(m_timer, TIMER_ABSTIME, &time, nullptr);
    }
    ~Alarm() {
        if (!m_isSet) return;
        const int saved = errno;
        timer_delete(m_timer);
        pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
        errno = saved;
    }
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;

    bool IsSet() const noexcept { return m_isSet; }

  private:
    timer_t m_timer{};
    sigset_t m_previous;
    bool m_isSet = false;
};

struct flock SystemLock(short type, std::int64_t begin, std::int64_t size) noexcept {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = begin;
    lock.l_len = size;
    return lock;
}

bool IsTaken(int error) noexcept {
    return error == EAGAIN || error == EACCES;
}

DWORD CodeOfLock(int error) noexcept {
    if (IsTaken(error)) return ERROR_LOCK_VIOLATION;
    return error == EBADF ? ERROR_ACCESS_DENIED : CodeFromErrno(error);
}

DWORD WaitForSystemLock(int fd, struct flock lock, Deadline deadline) noexcept {
    if (Retry([&] { return fcntl(fd, F_OFD_SETLK, &lock); }) == 0) return ERROR_SUCCESS;
    if (!IsTaken(errno) || deadline == 0) return CodeOfLock(errno);
    if (deadline == Never)
        return Retry([&] { return fcntl(fd, F_OFD_SETLKW, &lock); }) == 0 ? ERROR_SUCCESS : CodeOfLock(errno);
    const Alarm alarm(deadline);
    if (!alarm.IsSet()) return ERROR_NO_SYSTEM_RESOURCES;
    for (;;) {
        if (fcntl(fd, F_OFD_SETLKW, &lock) == 0) return ERROR_SUCCESS;
        if (errno != EINTR) return CodeOfLock(errno);
        if (Now() >= deadline) return ERROR_LOCK_VIOLATION;
    }
}

}  // namespace

bool RangeLocks::Enter(const Range& range, Deadline deadline) {
    std::unique_lock lock(m_lock);
    const auto isFree = [&] {
        return std::ranges::none_of(m_held, [&](const Range& held) { return held.Meets(range); });
    };
    if (!isFree()) {
        if (deadline == 0) return false;
        // The steady clock is the monotonic one that deadlines are of.
        using Clock = std::chrono::steady_clock;
        const Clock::time_point until{
            std::chrono::nanoseconds(static_cast<std::int64_t>(std::min(deadline, Never / 2)))};
        if (!m_left.wait_until(lock, until, isFree)) return false;
    }
    m_held.push_back(range);
    return true;
}

void RangeLocks::Leave(const Range& range) noexcept {
    {
        const std::scoped_lock lock(m_lock);
        m_held.erase(std::ranges::find(m_held, range));
    }
    m_left.notify_all();
}

DWORD RangeLocks::Lock(int fd, std::uint64_t begin, std::uint64_t size, Deadline deadline) {
    constexpr std::uint64_t End = OwnLockBytes;
    if (size == 0 || begin > End || size > End - begin) return ERROR_INVALID_PARAMETER;
    const Range range{static_cast<std::int64_t>(begin), static_cast<std::int64_t>(size)};
    if (!Enter(range, deadline)) return ERROR_LOCK_VIOLATION;
    const DWORD code = WaitForSystemLock(fd, SystemLock(F_WRLCK, range.begin, range.size), deadline);
    if (code) Leave(range);
    return code;
}

DWORD RangeLocks::Unlock(int fd, std::uint64_t begin, std::uint64_t size) noexcept {
    const Range range{static_cast<std::int64_t>(begin), static_cast<std::int64_t>(size)};
    {
        const std::scoped_lock lock(m_lock);
        const auto held = std::ranges::find(m_held, range);
        if (held == m_held.end()) return ERROR_NOT_LOCKED;
        // Before another thread may enter: its system lock would be the same one.
        struct flock unlock = SystemLock(F_UNLCK, range.begin, range.size);
        fcntl(fd, F_OFD_SETLK, &unlock);
        m_held.erase(held);
    }
    m_left.notify_all();
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Corvel::Platform
