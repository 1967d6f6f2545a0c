// The items of a pool, in numbers.
#pragma once

#include "TQLib/threads/internal/PoolCounters.h"

#include <atomic>

namespace Quellan::Corvel {

// The items that were posted and that no thread has taken, and the packets that are in the port for them.
// What is dropped is no item any more, but its packet is in flight until somebody takes it out.
//
// Anonymous items are numbered in the order of their posting, so that it can be told of each whether it was
// dropped. Of a requestor's that is told by its queue. For several threads.
class ItemCounters {
  public:
    [[nodiscard]] DWORD Items() const noexcept {
        // The settled ones first: never less than none.
        const ULONGLONG settled = ReadCounter(m_settled);
        const ULONGLONG settledForRequestors = ReadCounter(m_settledForRequestors);
        return static_cast<DWORD>(ReadCounter(m_posted) - settled +
                                  (ReadCounter(m_postedForRequestors) - settledForRequestors));
    }
    // In the order of the counters: what moves from one to the next is counted twice for a moment, never not
    // at all.
    [[nodiscard]] DWORD InFlight() const noexcept {
        const ULONGLONG settled = m_settled.load() + m_settledForRequestors.load();
        const auto items = static_cast<DWORD>(m_posted.load() + m_postedForRequestors.load() - settled);
        return items + m_droppedPackets.load();
    }
    // Since the pool was made.
    [[nodiscard]] ULONGLONG AllPosted() const noexcept {
        return m_posted.load() + m_postedForRequestors.load();
    }

    // Counts an anonymous item, and gives its number.
    [[nodiscard]] ULONGLONG Post() noexcept { return m_posted.fetch_add(1); }
    [[nodiscard]] bool IsDropped(ULONGLONG number) const noexcept { return number < m_droppedBelow.load(); }
    // An anonymous item's packet is in flight no more: it counts as taken. False where it was dropped.
    bool Settle(ULONGLONG number) noexcept {
        ULONGLONG settled = m_settled.load();
        do {
            if (IsDropped(number)) {
                SettleDropped();
                return false;
            }
        } while (!m_settled.compare_exchange_weak(settled, settled + 1));
        return true;
    }
    // Drops all anonymous items. Those that a thread is just taking are settled by one of the two, here or
    // there. One caller at a time.
    void DropAnonymous() noexcept {
        ULONGLONG settled = m_settled.load();
        for (;;) {
            const ULONGLONG posted = m_posted.load();
            const auto count = static_cast<DWORD>(posted - settled);
            if (count == 0) return;
            m_droppedPackets.fetch_add(count);
            m_droppedBelow = posted;
            if (m_settled.compare_exchange_strong(settled, posted)) return;
            m_droppedPackets.fetch_sub(count);
        }
    }

    void PostForRequestor() noexcept { m_postedForRequestors.fetch_add(1); }
    // Taken, or not posted in the end.
    void SettleForRequestor() noexcept { m_settledForRequestors.fetch_add(1); }
    void DropForRequestors(DWORD count) noexcept {
        m_droppedPackets.fetch_add(count);
        m_settledForRequestors.fetch_add(count);
    }
    // The packet of an item that was dropped is out of the port.
    void SettleDropped() noexcept { m_droppedPackets.fetch_sub(1); }

  private:
    // Posters write the one line, threads that take the other, with each item.
    alignas(64) mutable std::atomic<ULONGLONG> m_posted = 0;
    mutable std::atomic<ULONGLONG> m_postedForRequestors = 0;
    alignas(64) mutable std::atomic<ULONGLONG> m_settled = 0;
    mutable std::atomic<ULONGLONG> m_settledForRequestors = 0;
    // Rarely written.
    alignas(64) std::atomic<DWORD> m_droppedPackets = 0;
    std::atomic<ULONGLONG> m_droppedBelow = 0;  // the number before which no item is taken any more
};

}  // namespace Quellan::Corvel
