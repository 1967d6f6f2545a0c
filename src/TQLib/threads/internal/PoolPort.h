// Where the items of a pool wait for its threads.
#pragma once

#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQWin32AsynchRoot.h"

#include <memory>
#include <utility>

namespace Quellan::Corvel {

class WorkQueue;

// Whose an item is.
struct ItemTag {
    WorkQueue* queue = nullptr;  // of its requestor, null for an anonymous item
    ULONGLONG number = 0;        // the epoch of that queue; among the anonymous items the number of this one
};

// The items of a pool in the order of their posting, the stops of its threads, and what comes to the pool's
// completion port from others. On Windows all of that are packets in the port. On Linux items and stops wait
// in a queue of the pool's own, which calls the kernel only for threads that sleep, and the port is made when
// it is first asked for. For several threads.
class PoolPort {
  public:
    using Record = _TQWin32AsynchRoot::OVERLAPPED_DATA;

    enum class Kind { Item, Stop, Foreign };

    // What was taken.
    struct Packet {
        static constexpr DWORD InlineBytes = 104;

        Kind kind = Kind::Foreign;
        // Of an item.
        DWORD size = 0;
        ItemTag tag;
        Record* holder = nullptr;  // of its data; null where they are in `data`
        BYTE data[InlineBytes];
        // Of what is foreign.
        ULONG_PTR key = 0;
        DWORD bytes = 0;
        OVERLAPPED* record = nullptr;
        DWORD error = ERROR_SUCCESS;  // with which the operation failed that the packet completes

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

    // Queues a copy of the data. The platform's code. Throws 14 (ERROR_OUTOFMEMORY).
    [[nodiscard]] DWORD PostItem(const ItemTag& tag, const void* data, DWORD size);
    // False where there is no memory for it.
    bool PostThreadStop() noexcept;
    // Stops that nobody has taken.
    [[nodiscard]] DWORD Stops() const noexcept;

    // Waits up to `ms` milliseconds for a packet. The platform's code, WAIT_TIMEOUT when the time is up.
    [[nodiscard]] DWORD Take(DWORD ms, Packet& packet) noexcept;

  private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace Quellan::Corvel
