// Sleeping on a word of memory until another thread changes it, with deadlines on the monotonic clock.
#pragma once

#include "TQLib/platform/Compiler.h"
#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Base.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Quellan::Platform {

using Word = std::atomic<std::uint32_t>;

// Nanoseconds on the monotonic clock.
using Deadline = std::uint64_t;
constexpr Deadline Never = ~Deadline{0};
constexpr Deadline NanosecondsInMs = 1'000'000;

inline Deadline Now() noexcept {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<Deadline>(now.tv_sec) * 1'000'000'000 + static_cast<Deadline>(now.tv_nsec);
}

inline timespec TimeOf(Deadline deadline) noexcept {
    return {static_cast<time_t>(deadline / 1'000'000'000), static_cast<long>(deadline % 1'000'000'000)};
}

// `ms` from now; the platform's INFINITE is never.
inline Deadline DeadlineAfter(DWORD ms) noexcept {
    return ms == ~DWORD{0} ? Never : Now() + ms * NanosecondsInMs;
}

// Who shares the word: one process, or several through a mapped file.
enum class Reach : int { Process = FUTEX_PRIVATE_FLAG, Shared = 0 };

// Sleeps while the word holds `value`. 0 after a wake-up, which may be meant for an earlier user of the
// address; otherwise ETIMEDOUT, EAGAIN (the word holds another value) or EINTR.
inline int FutexWait(const Word& word, std::uint32_t value, Deadline deadline, Reach reach) noexcept {
    const timespec until = TimeOf(deadline);
    const long result = syscall(SYS_futex, &word, FUTEX_WAIT_BITSET | static_cast<int>(reach), value,
                                deadline == Never ? nullptr : &until, nullptr, FUTEX_BITSET_MATCH_ANY);
    return result < 0 ? errno : 0;
}

// The word may be gone already: only its address is used.
inline void FutexWake(const Word* word, int count, Reach reach) noexcept {
    syscall(SYS_futex, word, FUTEX_WAKE | static_cast<int>(reach), count, nullptr, nullptr, 0);
}

// Waiting for a lock that is held for some nanoseconds, or somewhat longer when its holder lost its core.
class Backoff {
  public:
    void Pause() noexcept {
        if (m_round < Pauses) {
            Compiler::Pause();
        } else if (m_round < Pauses + Yields) {
            sched_yield();
        } else {
            // A holder of lower real-time priority gets no core from a yield.
            const timespec nap{0, NapNs};
            clock_nanosleep(CLOCK_MONOTONIC, 0, &nap, nullptr);
        }
        ++m_round;
    }

  private:
    static constexpr unsigned Pauses = 40;
    static constexpr unsigned Yields = 40;
    static constexpr long NapNs = 50'000;

    unsigned m_round = 0;
};

// For sections of some nanoseconds that call nothing. Never slept on, so that unlocking is a plain store.
class TQ_LOCK_CLASS ShortLock {
  public:
    void lock() noexcept TQ_ACQUIRES() TQ_NOT_ANALYSED {
        for (Backoff backoff; m_held.exchange(true, std::memory_order_acquire);) {
            // Only looks while it is held: every exchange would take the line from the holder.
            do
                backoff.Pause();
            while (m_held.load(std::memory_order_relaxed));
        }
        TellAcquired(this);
    }
    void unlock() noexcept TQ_RELEASES() TQ_NOT_ANALYSED {
        TellOwnMemory(this, sizeof *this);
        TellReleased(this);
        m_held.store(false, std::memory_order_release);
    }

  private:
    std::atomic<bool> m_held{false};
};

}  // namespace Quellan::Platform
