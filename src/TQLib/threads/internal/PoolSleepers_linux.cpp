#include "TQLib/threads/internal/PoolSleepers_linux.h"

#include "TQLib/platform/linux/base/LockWatch.h"

#include <utility>

namespace Quellan::Corvel {

using Platform::Guard;

void PoolSleepers::WakeOne() noexcept {
    Sleeper* woken;
    {
        const Guard lock(m_lock);
        if (!m_top) return;
        // A search begins without the lock too. Who searches looks whether there is more when he is done.
        std::uint32_t state = m_state.load();
        do
            if (state & Searching) return;
        while (!m_state.compare_exchange_weak(state, state + Searching - OneSleeper));
        woken = std::exchange(m_top, m_top->below);
    }
    Wake(*woken, Searches);
}

void PoolSleepers::Dismiss() noexcept {
    Sleeper* woken;
    {
        const Guard lock(m_lock);
        woken = std::exchange(m_top, nullptr);
        m_state.fetch_or(Dismissed);
        m_state.fetch_and(~SleeperMask);
    }
    while (woken)
        Wake(*std::exchange(woken, woken->below), IsDismissed);
}

// The sleeper may be gone once its word has changed.
void PoolSleepers::Wake(Sleeper& sleeper, std::uint32_t word) noexcept {
    Platform::BeforeWake();
    sleeper.word.store(word);
    Platform::FutexWake(&sleeper.word, 1, Platform::Reach::Process);
}

// False when the time is over and after `Dismiss`. The thread's search, if it is searching, ends and begins
// with the sleep.
bool PoolSleepers::Sleep(Platform::Deadline deadline, bool& isSearching) noexcept {
    Sleeper self;
    {
        const Guard lock(m_lock);
        self.below = std::exchange(m_top, &self);
        m_state.fetch_add(std::exchange(isSearching, false) ? OneSleeper - Searching : OneSleeper);
    }
    bool isOver = false;
    if (m_items.IsEmpty() && !AreDismissed())
        while (self.word.load() == Asleep && !isOver)
            isOver = Platform::FutexWait(self.word, Asleep, deadline, Platform::Reach::Process) == ETIMEDOUT;
    if (TakeOff(self)) {
        // Somebody may have pushed two items and relied on the search that was just given up.
        isSearching = !isOver && BeginSearch();
        return !isOver && !AreDismissed();
    }
    // Who has taken it off is about to say so.
    for (Platform::Backoff backoff; self.word.load() == Asleep;)
        backoff.Pause();
    isSearching = self.word.load() == Searches;
    return isSearching;
}

bool PoolSleepers::TakeOff(Sleeper& sleeper) noexcept {
    const Guard lock(m_lock);
    for (Sleeper** place = &m_top; *place; place = &(*place)->below) {
        if (*place != &sleeper) continue;
        *place = sleeper.below;
        m_state.fetch_sub(OneSleeper);
        return true;
    }
    return false;
}

bool PoolSleepers::BeginSearch() noexcept {
    return !(m_state.fetch_or(Searching) & Searching);
}

void PoolSleepers::EndSearch() noexcept {
    const std::uint32_t state = m_state.fetch_and(~Searching);
    if ((state & SleeperMask) && !m_items.IsEmpty()) WakeOne();
}

}  // namespace Quellan::Corvel
