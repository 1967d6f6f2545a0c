#include "TQLib/platform/linux/files/RangeLocks.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/files/ShareModes.h"

#include <algorithm>
#include <climits>
#include <ctime>

namespace Quellan::Platform {

namespace {

// How long to leave a lock alone that somebody has, after so many nanoseconds of waiting for it: hardly at
// all at first, as most locks are held for a moment, then a millisecond, and the less the longer the wait. So
// who has waited long asks more often than who has just come, and gets the lock before him as a rule.
Deadline PauseAfter(Deadline waitedNs) noexcept {
    constexpr Deadline Us = 1'000, Ms = NanosecondsInMs;
    if (waitedNs < 100 * Us) return 20 * Us;
    return std::max(100 * Us, Ms * 32 * Ms / (32 * Ms + waitedNs));
}

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

// The system's own wait has no time-out: only a signal would end it, and signals are the application's.
DWORD WaitForSystemLock(int fd, struct flock lock, Deadline deadline) noexcept {
    if (deadline == Never)
        return Retry([&] { return fcntl(fd, F_OFD_SETLKW, &lock); }) == 0 ? ERROR_SUCCESS : CodeOfLock(errno);
    for (Deadline begin = 0;;) {
        if (Retry([&] { return fcntl(fd, F_OFD_SETLK, &lock); }) == 0) return ERROR_SUCCESS;
        if (!IsTaken(errno) || deadline == 0) return CodeOfLock(errno);
        const Deadline now = Now();
        if (now >= deadline) return ERROR_LOCK_VIOLATION;
        if (begin == 0) begin = now;
        const timespec until = TimeOf(std::min(deadline, now + PauseAfter(now - begin)));
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    }
}

}  // namespace

bool RangeLocks::Enter(const Range& range, Deadline deadline) {
    for (bool hasWaited = false, isOver = deadline == 0;;) {
        std::uint32_t seen;
        {
            const Guard lock(m_lock);
            m_waiting -= std::exchange(hasWaited, false);
            if (std::ranges::none_of(m_held, [&](const Range& held) { return held.Meets(range); })) {
                m_held.push_back(range);
                return true;
            }
            if (isOver) return false;
            ++m_waiting;
            seen = m_left;
        }
        hasWaited = true;
        isOver = FutexWait(m_left, seen, deadline, Reach::Process) == ETIMEDOUT;
    }
}

void RangeLocks::Leave(const Range& range) noexcept {
    unsigned waiting;
    {
        const Guard lock(m_lock);
        m_held.erase(std::ranges::find(m_held, range));
        ++m_left;
        waiting = m_waiting;
    }
    if (waiting != 0) FutexWake(&m_left, INT_MAX, Reach::Process);
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
    unsigned waiting;
    {
        const Guard lock(m_lock);
        const auto held = std::ranges::find(m_held, range);
        if (held == m_held.end()) return ERROR_NOT_LOCKED;
        // Before another thread may enter: its system lock would be the same one.
        struct flock unlock = SystemLock(F_UNLCK, range.begin, range.size);
        Retry([&] { return fcntl(fd, F_OFD_SETLK, &unlock); });
        m_held.erase(held);
        ++m_left;
        waiting = m_waiting;
    }
    if (waiting != 0) FutexWake(&m_left, INT_MAX, Reach::Process);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
