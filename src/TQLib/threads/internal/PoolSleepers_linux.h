// The threads of a pool that have nothing to do.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/threads/internal/ItemFifo_linux.h"

#include <atomic>

namespace Quellan::Corvel {

// They sleep, and the last to come is woken first, so that those who come first may leave. One at a time is
// woken, or looks around before it sleeps: it searches. While it does a push wakes nobody; with the first item
// that it takes it wakes the next one where there is more.
//
// No item is left to threads that sleep: a sleeper is announced before it looks a last time, a push is made
// before the announcements are looked at, and a search is over before its thread looks a last time. For
// several threads.
class PoolSleepers {
  public:
    explicit PoolSleepers(ItemFifo& items) noexcept : m_items(items) {}

    // What there is to do after a push: nothing where nobody sleeps, or who searches will find it.
    enum class Need { Nothing, WakeOne, Dismissed };
    [[nodiscard]] Need NeedAfterPush() const noexcept {
        const std::uint32_t state = m_state.load();
        if (state == 0) [[likely]]
            return Need::Nothing;
        if (state & Dismissed) return Need::Dismissed;
        return state & Searching ? Need::Nothing : Need::WakeOne;
    }
    void WakeOne() noexcept;
    // Wakes all, and lets nobody sleep any more.
    void Dismiss() noexcept;
    [[nodiscard]] bool AreDismissed() const noexcept { return m_state.load() & Dismissed; }

    // Waits until `take` says that it has taken something. False when the time is over, and after `Dismiss`.
    template <class Take>
    [[nodiscard]] bool Await(Platform::Deadline deadline, Take take) noexcept {
        bool isSearching = false;
        while (!take())
            if (!Sleep(deadline, isSearching)) return false;
        if (isSearching) EndSearch();
        return true;
    }

  private:
    // The lower half of the state counts the sleepers.
    static constexpr std::uint32_t OneSleeper = 1;
    static constexpr std::uint32_t SleeperMask = 0xFFFF;
    static constexpr std::uint32_t Searching = 0x10000;
    static constexpr std::uint32_t Dismissed = 0x20000;  // nobody sleeps any more

    // Values of a sleeper's word.
    enum : std::uint32_t { Asleep, Searches, IsDismissed };

    struct Sleeper {
        Platform::Word word{Asleep};
        Sleeper* below = nullptr;
    };

    [[nodiscard]] bool Sleep(Platform::Deadline deadline, bool& isSearching) noexcept;
    [[nodiscard]] bool BeginSearch() noexcept;
    void EndSearch() noexcept;
    // False where somebody else has taken it off.
    [[nodiscard]] bool TakeOff(Sleeper& sleeper) noexcept;
    static void Wake(Sleeper& sleeper, std::uint32_t word) noexcept;

    ItemFifo& m_items;
    alignas(128) std::atomic<std::uint32_t> m_state = 0;
    alignas(128) Platform::ObjectLock<Platform::ShortLock> m_lock;
    Sleeper* m_top TQ_GUARDED_BY(m_lock) = nullptr;
};

}  // namespace Quellan::Corvel
