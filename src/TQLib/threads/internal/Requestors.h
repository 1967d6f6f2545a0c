// Those for whom a pool has items.
#pragma once

#include "TQLib/platform/Types.h"

#include <atomic>
#include <memory>
#include <vector>

namespace Quellan::Corvel {

// How many items of one requestor are queued, and the epoch in which they were posted: a clear begins the next
// one, and an item of an earlier epoch was dropped. Both lie in one word, so that a clear takes the same time
// whatever is queued and knows what it drops. For several threads.
class alignas(64) WorkQueue {
  public:
    // Whose it is; 0 for nobody's. Its items are dropped before it is another one's.
    [[nodiscard]] DWORD RequestorID() const noexcept { return m_requestorID.load(); }
    void GiveTo(DWORD requestorID) noexcept { m_requestorID = requestorID; }

    // Counts an item and gives its epoch. False where the queue is no more that requestor's.
    [[nodiscard]] bool Post(DWORD requestorID, DWORD& epoch) noexcept {
        ULONGLONG state = m_state.load();
        do
            if (RequestorID() != requestorID) return false;
        while (!m_state.compare_exchange_weak(state, state + 1));
        epoch = EpochIn(state);
        return true;
    }
    [[nodiscard]] bool IsDropped(DWORD epoch) const noexcept { return EpochIn(m_state.load()) != epoch; }
    // An item is queued no more. False where it was dropped before.
    [[nodiscard]] bool Settle(DWORD epoch) noexcept {
        ULONGLONG state = m_state.load();
        do
            if (EpochIn(state) != epoch) return false;
        while (!m_state.compare_exchange_weak(state, state - 1));
        return true;
    }
    // Drops all items and gives their number.
    [[nodiscard]] DWORD Clear() noexcept {
        ULONGLONG state = m_state.load();
        while (!m_state.compare_exchange_weak(state, ((state >> EpochShift) + 1) << EpochShift))
            ;
        return static_cast<DWORD>(state);
    }

    WorkQueue* nextFree = nullptr;  // the owner's

  private:
    static constexpr unsigned EpochShift = 32;

    static constexpr DWORD EpochIn(ULONGLONG state) noexcept {
        return static_cast<DWORD>(state >> EpochShift);
    }

    std::atomic<ULONGLONG> m_state = 0;
    std::atomic<DWORD> m_requestorID = 0;
};

// The requestors of a pool. They are found without a lock; all else is for one thread at a time. What posters
// may be reading stays as long as the pool: the queues of requestors that were released are given to others.
class Requestors {
  public:
    // Throws 14 (ERROR_OUTOFMEMORY) "Allocation of thread pool requestor ID queue failed".
    Requestors();

    // A new requestor's ID; 0 without memory for it.
    [[nodiscard]] DWORD Add() noexcept;
    // Each drops items and gives their number.
    [[nodiscard]] DWORD Release(DWORD requestorID) noexcept;
    [[nodiscard]] DWORD Clear(DWORD requestorID) noexcept;
    [[nodiscard]] DWORD ClearAll() noexcept;

    // Null for a requestor that is not known.
    [[nodiscard]] WorkQueue* RequestorQueue(DWORD requestorID) const noexcept {
        WorkQueue* const queue = m_map.load()->PlaceOf(requestorID).load();
        return queue && queue->RequestorID() == requestorID ? queue : nullptr;
    }

  private:
    // A place for each requestor, by the last bits of its ID, which no other one shares.
    struct QueueMap {
        std::vector<std::atomic<WorkQueue*>> places;  // a power of two of them

        explicit QueueMap(std::size_t count) : places(count) {}
        std::atomic<WorkQueue*>& PlaceOf(DWORD requestorID) noexcept {
            return places[requestorID & (places.size() - 1)];
        }
    };

    void Grow(std::size_t places);

    static constexpr std::size_t FirstPlaces = 64;

    std::atomic<QueueMap*> m_map = nullptr;         // the last one
    std::vector<std::unique_ptr<QueueMap>> m_maps;  // each twice as large as the one before
    std::vector<std::unique_ptr<WorkQueue>> m_queues;
    WorkQueue* m_free = nullptr;
    std::size_t m_count = 0;  // of requestors
    DWORD m_lastRequestorID = 0;
};

}  // namespace Quellan::Corvel
