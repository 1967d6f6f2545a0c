// The queue of a pool.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/threads/TQThreadPool.h"
#include "TQLib/threads/internal/ItemCounters.h"
#include "TQLib/threads/internal/PoolPort.h"
#include "TQLib/threads/internal/Requestors.h"

namespace Quellan::Corvel {

class PoolThreads;

// What was posted and no thread has taken, in one order of all items. For several threads.
class PoolQueue {
  public:
    using Kind = PoolPort::Kind;
    using Packet = PoolPort::Packet;
    using WorkItemPtr = _TQThreadPoolBase::WorkItemPtr;

    // `pool` as in `PoolPort`. Throws "Completion port could not be created for thread pool." and 14
    // (ERROR_OUTOFMEMORY) "Allocation of thread pool requestor ID queue failed".
    explicit PoolQueue(const void* pool) : m_port(pool) {}

    // Drops every item, and refuses further ones.
    void Stop();
    [[nodiscard]] bool IsStopped() const noexcept { return m_items.IsStopped(); }
    // Throws 0x80000015 "Thread pool has been stopped - no further work can be done on the pool.".
    [[noreturn]] static void ThrowStopped();
    // Once nobody posts or takes any more: closes the port and gives memory back.
    void Close() noexcept;

    DWORD NewRequestor();
    void ReleaseRequestor(DWORD requestorID);
    void ClearRequestor(DWORD requestorID);
    void ClearAll();

    // Counts an item, then asks `threads` for one that takes it, then lets it be taken; queues nothing where
    // one of these throws. The order matters: a thread that retires is no longer counted before it looks for
    // items. Throws as `AddWork`.
    void Post(const void* data, DWORD size, DWORD requestorID, PoolThreads& threads);
    // An item with a copy of the data and the next item ID.
    [[nodiscard]] WorkItemPtr AllocWorkData(const void* data, DWORD size, DWORD requestorID);

    [[nodiscard]] DWORD Items() const noexcept { return m_items.Items(); }
    // Items that nobody has taken out of the port, dropped or not, and those that are about to come there.
    [[nodiscard]] DWORD InFlight() const noexcept { return m_items.InFlight(); }

    // Waits up to `ms` milliseconds for a packet. The platform's code, WAIT_TIMEOUT when the time is up.
    [[nodiscard]] DWORD Take(DWORD ms, Packet& packet) noexcept { return m_port.Take(ms, packet); }
    // Moves the item of a packet to `data`; false where it was dropped. Throws where there is no memory for
    // it: the packet still has it then.
    [[nodiscard]] bool TakeItem(Packet& packet, BYTEBuf& data);

    // False where the port refuses one.
    bool PostThreadStop() noexcept { return m_port.PostThreadStop(); }
    // Stop packets that no thread has taken.
    [[nodiscard]] DWORD Stops() const noexcept { return m_port.Stops(); }

    [[nodiscard]] bool IsClosed() const noexcept { return m_port.IsClosed(); }
    // As `PoolPort::Port`.
    [[nodiscard]] HANDLE Port() noexcept { return m_port.Port(); }

  private:
    // Counts an item as posted.
    [[nodiscard]] ItemTag Count(DWORD requestorID);
    [[nodiscard]] bool IsDropped(const ItemTag& item) const noexcept;
    // It is no longer in flight. False where it was dropped.
    bool Settle(const ItemTag& item) noexcept;
    DWORD GetNextItemID() noexcept { return ++m_lastItemID; }

    ItemCounters m_items;
    PoolPort m_port;
    TQThreadSynch m_lock;
    Requestors m_requestors;  // changed under the lock
    std::atomic<DWORD> m_lastItemID = 0;
};

}  // namespace Quellan::Corvel
