// What the threads of a pool do, in numbers.
#pragma once

#include "TQLib/platform/Types.h"

#include <atomic>

namespace Quellan::Corvel {

// By an interlocked operation, so that it is ordered among those that change the counter.
template <class T>
T ReadCounter(std::atomic<T>& counter) noexcept {
    T value = 0;
    counter.compare_exchange_strong(value, 0);
    return value;
}

// How many threads there are, how many of them wait for an item and how many do something else, and how many
// objects have their completions come to the pool. For several threads.
class PoolCounters {
  public:
    [[nodiscard]] DWORD Waiting() const noexcept { return WaitingIn(ReadCounter(m_use)); }
    [[nodiscard]] DWORD Busy() const noexcept {
        return static_cast<DWORD>(ReadCounter(m_use)) & ((DWORD{1} << TakingShift) - 1);
    }
    [[nodiscard]] DWORD Allocated() const noexcept { return ReadCounter(m_allocated); }
    [[nodiscard]] DWORD PortObjectCount() const noexcept { return ReadCounter(m_portObjects); }
    // The next two are for every post, which only reads them.
    [[nodiscard]] bool IsFull(DWORD maximum) const noexcept { return m_allocated.load() >= maximum; }
    [[nodiscard]] bool HasPortObjects() const noexcept { return m_portObjects.load() != 0; }
    // Threads that will take an item each without having to be made.
    [[nodiscard]] DWORD AtHand() const noexcept {
        const ULONGLONG use = m_use.load();
        return WaitingIn(use) + (static_cast<DWORD>(use) >> TakingShift);
    }
    // Whether no thread was started that has not left.
    [[nodiscard]] bool ServesNobody() const noexcept { return m_serving.load() <= 0; }

    // One that waited is busy or the other way round.
    void AdjustBusy(bool busy) noexcept {
        if (busy)
            m_use.fetch_sub(OneWaiting - OneBusy);
        else
            m_use.fetch_add(OneWaiting - OneBusy);
    }
    // Threads more or less, which count as waiting.
    void AdjustAllocated(bool add, DWORD count) noexcept {
        if (add) {
            m_allocated.fetch_add(count);
            m_use.fetch_add(count * OneWaiting);
        } else {
            m_allocated.fetch_sub(count);
            m_use.fetch_sub(count * OneWaiting);
        }
    }
    void AdjustPortObjects(bool add) noexcept {
        add ? m_portObjects.fetch_add(1) : m_portObjects.fetch_sub(1);
    }
    void AdjustServing(bool add) noexcept { add ? m_serving.fetch_add(1) : m_serving.fetch_sub(1); }

    // A thread that waited is busy, and about to take the item that it has waited for. Until it has, a post
    // needs no thread for that item, and relies on this one for its own.
    void BeginTaking() noexcept { m_use.fetch_sub(OneWaiting - OneBusy - OneTaking); }
    void EndTaking() noexcept { m_use.fetch_sub(OneTaking); }
    // There was none: it waits again.
    void CancelTaking() noexcept { m_use.fetch_add(OneWaiting - OneBusy - OneTaking); }

  private:
    static constexpr unsigned TakingShift = 16, WaitingShift = 32;
    static constexpr ULONGLONG OneBusy = 1;
    static constexpr ULONGLONG OneTaking = ULONGLONG{1} << TakingShift;
    static constexpr ULONGLONG OneWaiting = ULONGLONG{1} << WaitingShift;

    static constexpr DWORD WaitingIn(ULONGLONG use) noexcept {
        return static_cast<DWORD>(use >> WaitingShift);
    }

    // Written when a thread begins or ends to wait: those that change together share a word. Busy threads,
    // those of them that are taking what they waited for, waiting ones.
    alignas(64) mutable std::atomic<ULONGLONG> m_use = 0;
    // Read with each item, rarely written.
    alignas(64) mutable std::atomic<DWORD> m_allocated = 0;
    mutable std::atomic<DWORD> m_portObjects = 0;
    std::atomic<LONG> m_serving = 0;
};

}  // namespace Quellan::Corvel
