// The queue of a pool.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/threads/TQThreadPool.h"
#include "TQLib/threads/internal/PoolPort.h"
#include "TQLib/threads/internal/Requestors.h"

namespace Quellan::Corvel {

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
    [[nodiscard]] bool IsStopped() const noexcept { return m_port.IsStopped(); }
    // Throws 0x80000015 "Thread pool has been stopped - no further work can be done on the pool.".
    [[noreturn]] static void ThrowStopped();
    // Once nobody posts or takes any more: closes the port and gives memory back.
    void Close() noexcept;

    DWORD NewRequestor();
    void ReleaseRequestor(DWORD requestorID);
    void ClearRequestor(DWORD requestorID);
    void ClearAll();

    // Throws as `AddWork`; nothing is queued then.
    void Post(const void* data, DWORD size, DWORD requestorID) {
        WorkQueue* queue = nullptr;
        if (requestorID != 0 && !(queue = m_requestors.RequestorQueue(requestorID))) [[unlikely]]
            ThrowRefused(ERROR_NOT_FOUND);
        if (const DWORD code = m_port.PostItem(queue, requestorID, data, size)) [[unlikely]]
            ThrowRefused(code);
    }
    // An item with a copy of the data and the next item ID.
    [[nodiscard]] WorkItemPtr AllocWorkData(const void* data, DWORD size, DWORD requestorID);

    // As those of `PoolPort`.
    [[nodiscard]] DWORD Items() const noexcept { return IsClosed() ? 0 : m_port.Items(); }
    [[nodiscard]] DWORD InFlight() const noexcept { return IsClosed() ? 0 : m_port.InFlight(); }
    [[nodiscard]] DWORD Take(Packet& packet, ItemBuffer& data) noexcept { return m_port.Take(packet, data); }
    [[nodiscard]] DWORD Await(DWORD ms, Packet& packet, ItemBuffer& data, PoolCounters& counters) noexcept {
        return m_port.Await(ms, packet, data, counters);
    }
    // Moves an item that is still in its packet to `data`; false where it was dropped. Throws where there is
    // no memory for it: the packet still has it then.
    [[nodiscard]] bool TakeItem(Packet& packet, ItemBuffer& data);

    // False where the port refuses one.
    bool PostThreadStop() noexcept { return m_port.PostThreadStop(); }
    // Stop packets that no thread has taken.
    [[nodiscard]] DWORD Stops() const noexcept { return m_port.Stops(); }

    [[nodiscard]] bool IsClosed() const noexcept { return m_port.IsClosed(); }
    // As `PoolPort::Port`.
    [[nodiscard]] HANDLE Port() noexcept { return m_port.Port(); }

  private:
    [[noreturn]] static void ThrowRefused(DWORD code);
    void Drop(DWORD count) noexcept {
        if (!IsClosed()) m_port.Drop(count);
    }
    DWORD GetNextItemID() noexcept { return ++m_lastItemID; }

    PoolPort m_port;
    TQThreadSynch m_lock;
    Requestors m_requestors;  // changed under the lock
    std::atomic<DWORD> m_lastItemID = 0;
};

}  // namespace Quellan::Corvel
