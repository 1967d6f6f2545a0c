// The queue of a pool.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/threads/TQThreadPool.h"
#include "TQLib/threads/internal/ItemCounters.h"
#include "TQLib/threads/internal/PoolPort.h"
#include "TQLib/threads/internal/Requestors.h"

namespace Quellan::Corvel {

class PoolThreads;

// What was posted and no thread has taken: a packet in the port for each item, so that there is one order of
// all items. For several threads.
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
    // Packets of items that nobody has taken out of the port, and those that are about to come there.
    [[nodiscard]] DWORD InFlight() const noexcept { return m_items.InFlight(); }

    // Waits up to `ms` milliseconds for a packet. The platform's code, WAIT_TIMEOUT when the time is up.
    [[nodiscard]] DWORD Take(DWORD ms, Packet& packet) noexcept { return m_port.Take(ms, packet); }
    [[nodiscard]] Kind KindOf(const Packet& packet) const noexcept { return m_port.KindOf(packet); }
    // Moves the item for which a packet of the kind Item stands to `data`; false where it was dropped. Throws
    // where there is no memory for it: the packet still stands for it then.
    [[nodiscard]] bool TakeItem(const Packet& packet, BYTEBuf& data);

    // False where the port refuses one.
    bool PostThreadStop() const noexcept { return m_port.PostThreadStop(); }
    // Stop packets that no thread has taken, and that one of them was.
    [[nodiscard]] DWORD Stops() const noexcept { return m_port.Stops(); }
    void SettleStop() noexcept { m_port.SettleStop(); }

    // Null once it is closed.
    [[nodiscard]] HANDLE Port() const noexcept { return m_port.Get(); }

  private:
    using Record = PoolPort::Record;

    // Counts the item of a record as posted.
    void Count(Record& record, DWORD requestorID);
    [[nodiscard]] bool IsDropped(Record& record) const noexcept;
    // It is no longer in flight. False where it was dropped.
    bool Settle(Record& record) noexcept;
    DWORD GetNextItemID() noexcept { return ++m_lastItemID; }

    ItemCounters m_items;
    PoolPort m_port;
    TQThreadSynch m_lock;
    Requestors m_requestors;  // changed under the lock
    std::atomic<DWORD> m_lastItemID = 0;
};

}  // namespace Quellan::Corvel
