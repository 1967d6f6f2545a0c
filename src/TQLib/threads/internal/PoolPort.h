// Where the items of a pool wait for its threads.
#pragma once

#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/threads/TQWin32AsynchRoot.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <utility>

namespace Quellan::Corvel {

class PoolCounters;
class WorkQueue;

// The buffer of a pool thread, which each of its items comes to.
class ItemBuffer : public BYTEBuf {
  public:
    static constexpr DWORD ShortBytes = 104;

    // The bytes of memory that it has.
    [[nodiscard]] std::size_t Room() const noexcept { return BlockSize(); }
    // Takes the first `size` of the bytes. False where it would need memory for that.
    [[nodiscard]] bool Take(const BYTE (&bytes)[ShortBytes], DWORD size) noexcept {
        if (Room() < ShortBytes) return false;
        Assign(bytes, size);
        return true;
    }
    // The same in a few steps; false too where it has another number of bytes.
    [[nodiscard]] bool TakeSame(const BYTE (&bytes)[ShortBytes], DWORD size) noexcept {
        if (Bytes() != size || Room() < ShortBytes) return false;
        std::memcpy(Block(), bytes, ShortBytes);
        return true;
    }
};

// The items of a pool in the order of their posting, the stops of its threads, and what comes to the pool's
// completion port from others. On Windows all of that are packets in the port. On Linux items and stops wait
// in a queue of the pool's own, which calls the kernel only for threads that sleep, and the port is made when
// it is first asked for. For several threads.
class PoolPort {
  public:
    using Record = _TQWin32AsynchRoot::OVERLAPPED_DATA;

    // With Taken, the item counts as taken and is in the thread's buffer; with Item it still has to be moved
    // there.
    enum class Kind { Taken, Item, Stop, Foreign };

    // What was taken.
    struct Packet {
        static constexpr DWORD InlineBytes = ItemBuffer::ShortBytes;

        Kind kind;
        // Of an item.
        DWORD size;
        WorkQueue* queue;  // of its requestor, null for an anonymous item
        ULONGLONG number;  // by which it can be told whether it was dropped: with a queue the epoch of that
        Record* holder;    // of its data; null where they are in `data`
        BYTE data[InlineBytes];
        // Of what is foreign.
        ULONG_PTR key;
        DWORD bytes;
        OVERLAPPED* record;
        DWORD error;  // with which the operation failed that the packet completes

        Packet() noexcept {}
        [[nodiscard]] const BYTE* Data() const noexcept { return holder ? holder->data : data; }
        // Once the item's data are no longer needed.
        void Free() noexcept { _TQWin32AsynchRoot::FreeOverlapped(std::exchange(holder, nullptr)); }
    };

    // `pool` is only compared. Throws "Completion port could not be created for thread pool.".
    explicit PoolPort(const void* pool);
    ~PoolPort();

    // Nobody posts or takes any more.
    void Close() noexcept;
    [[nodiscard]] bool IsClosed() const noexcept { return !m_impl; }
    // For packets of others. Null once it is closed, and where it can't be made.
    [[nodiscard]] HANDLE Port() noexcept;

    // No item is accepted any more.
    void Stop() noexcept { m_isStopped = true; }
    [[nodiscard]] bool IsStopped() const noexcept { return m_isStopped.load(); }

    // Queues a copy of the data for a requestor that has `queue`, or for none, where that is null. The
    // platform's code; ERROR_NOT_FOUND where the queue is no more that requestor's, ERROR_OPERATION_ABORTED
    // where no item is accepted. Throws 14 (ERROR_OUTOFMEMORY).
    [[nodiscard]] DWORD PostItem(WorkQueue* queue, DWORD requestorID, const void* data, DWORD size);
    // So many items of requestors were dropped in their queues.
    void Drop(DWORD count) noexcept;
    // Drops what else was posted before.
    void DropAnonymous() noexcept;

    // Items that no thread has taken and nobody has dropped.
    [[nodiscard]] DWORD Items() const noexcept;
    // Items that are here, dropped or not, and those that are about to come here.
    [[nodiscard]] DWORD InFlight() const noexcept;
    [[nodiscard]] ULONGLONG AllPosted() const noexcept;

    // False where there is no memory for it.
    bool PostThreadStop() noexcept;
    // Stops that nobody has taken.
    [[nodiscard]] DWORD Stops() const noexcept;

    // Takes what there is; `data` is the thread's. The platform's code, WAIT_TIMEOUT where there is nothing.
    [[nodiscard]] DWORD Take(Packet& packet, ItemBuffer& data) noexcept;
    // The same for a thread that counts as waiting, and waits up to `ms` milliseconds. With success it counts
    // as taking before its item counts as taken.
    [[nodiscard]] DWORD Await(DWORD ms, Packet& packet, ItemBuffer& data, PoolCounters& counters) noexcept;
    // Of an item that is still to be moved: whether it was dropped, and counts it as taken, which it does not
    // where it was dropped.
    [[nodiscard]] bool IsDropped(const Packet& packet) const noexcept;
    bool Settle(const Packet& packet) noexcept;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    std::atomic<bool> m_isStopped = false;
};

}  // namespace Quellan::Corvel
