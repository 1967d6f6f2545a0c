#include "TQLib/threads/internal/ItemCounters_windows.h"
#include "TQLib/threads/internal/PoolHandle.h"
#include "TQLib/threads/internal/PoolPort.h"
#include "TQLib/threads/internal/Requestors.h"

#include <atomic>
#include <cstring>

namespace Quellan::Corvel {

namespace {

constexpr DWORD StopBytes = 0xFFFFFFFF;  // of a stop packet, which carries no data

OVERLAPPED* PlatformRecord(PoolPort::Record& record) noexcept {
    return reinterpret_cast<OVERLAPPED*>(record.overlapped);
}

}  // namespace

// The pool's own records carry its address, and the queue of an item's requestor, in fields that the platform
// reads of no posted packet.
struct PoolPort::Impl {
    explicit Impl(const void* owner)
        : pool(owner), port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0)) {
        if (!port) TQSysException::ThrowLastError(L"Completion port could not be created for thread pool.");
        MarkAsOwn(stop);
    }
    void MarkAsOwn(Record& record) const noexcept {
        PlatformRecord(record)->hEvent = const_cast<void*>(pool);
    }
    // Nothing is read of a record that comes with a key.
    [[nodiscard]] Kind KindOf(const Packet& packet) noexcept {
        if (packet.key != 0 || !packet.record || packet.record->hEvent != pool) return Kind::Foreign;
        return packet.record == PlatformRecord(stop) ? Kind::Stop : Kind::Item;
    }

    // Counts an item as posted, and gives its number. False where the queue is no more that requestor's.
    [[nodiscard]] bool Count(WorkQueue* queue, DWORD requestorID, ULONGLONG& number) noexcept;
    // It is no longer in flight. False where it was dropped.
    bool Settle(WorkQueue* queue, ULONGLONG number) noexcept;
    [[nodiscard]] DWORD GetPacket(DWORD ms, Packet& packet) noexcept;

    const void* const pool;
    ItemCounters items;
    const PoolHandle port;
    Record stop{};
    std::atomic<DWORD> stops = 0;
};

PoolPort::PoolPort(const void* pool) : m_impl(std::make_unique<Impl>(pool)) {}

PoolPort::~PoolPort() = default;

void PoolPort::Close() noexcept {
    m_impl.reset();
}

HANDLE PoolPort::Port() noexcept {
    return m_impl ? m_impl->port.get() : nullptr;
}

// Numbers.

DWORD PoolPort::Items() const noexcept {
    return m_impl->items.Items();
}

DWORD PoolPort::InFlight() const noexcept {
    return m_impl->items.InFlight();
}

ULONGLONG PoolPort::AllPosted() const noexcept {
    return m_impl->items.AllPosted();
}

DWORD PoolPort::Stops() const noexcept {
    return m_impl->stops.load();
}

bool PoolPort::Impl::Count(WorkQueue* queue, DWORD requestorID, ULONGLONG& number) noexcept {
    if (!queue) {
        number = items.Post();
        return true;
    }
    DWORD epoch = 0;
    // Before the queue counts it: who clears that finds no more items than were posted.
    items.PostForRequestor();
    const bool isKnown = queue->Post(requestorID, epoch);
    if (!isKnown) items.SettleForRequestor();
    number = epoch;
    return isKnown;
}

bool PoolPort::Impl::Settle(WorkQueue* queue, ULONGLONG number) noexcept {
    if (!queue) return items.Settle(number);
    const bool isTaken = queue->Settle(static_cast<DWORD>(number));
    if (isTaken)
        items.SettleForRequestor();
    else
        items.SettleDropped();
    return isTaken;
}

bool PoolPort::IsDropped(const Packet& packet) const noexcept {
    return packet.queue ? packet.queue->IsDropped(static_cast<DWORD>(packet.number))
                        : m_impl->items.IsDropped(packet.number);
}

bool PoolPort::Settle(const Packet& packet) noexcept {
    return m_impl->Settle(packet.queue, packet.number);
}

void PoolPort::Drop(DWORD count) noexcept {
    m_impl->items.DropForRequestors(count);
}

void PoolPort::DropAnonymous() noexcept {
    m_impl->items.DropAnonymous();
}

// Posting.

DWORD PoolPort::PostItem(WorkQueue* queue, DWORD requestorID, const void* data, DWORD size) {
    Record* const record = _TQWin32AsynchRoot::AllocOverlapped(size, true, 0);
    if (size != 0) std::memcpy(record->data, data, size);
    DWORD code = ERROR_NOT_FOUND;
    if (m_impl->Count(queue, requestorID, record->number)) {
        PlatformRecord(*record)->Pointer = queue;
        m_impl->MarkAsOwn(*record);
        // Once it is counted: who stops the pool later drops it.
        if (IsStopped())
            code = ERROR_OPERATION_ABORTED;
        else if (PostQueuedCompletionStatus(m_impl->port.get(), size, 0, PlatformRecord(*record)))
            return ERROR_SUCCESS;
        else
            code = GetLastError();
        m_impl->Settle(queue, record->number);
    }
    _TQWin32AsynchRoot::FreeOverlapped(record);
    return code;
}

bool PoolPort::PostThreadStop() noexcept {
    m_impl->stops.fetch_add(1);
    if (PostQueuedCompletionStatus(m_impl->port.get(), StopBytes, 0, PlatformRecord(m_impl->stop)))
        return true;
    m_impl->stops.fetch_sub(1);
    return false;
}

// Taking.

DWORD PoolPort::Take(Packet& packet, ItemBuffer&) noexcept {
    return m_impl->GetPacket(0, packet);
}

DWORD PoolPort::Await(DWORD ms, Packet& packet, ItemBuffer&, PoolCounters& counters) noexcept {
    const DWORD code = m_impl->GetPacket(ms, packet);
    if (code == ERROR_SUCCESS) counters.BeginTaking();
    return code;
}

DWORD PoolPort::Impl::GetPacket(DWORD ms, Packet& packet) noexcept {
    packet.record = nullptr;
    packet.error = ERROR_SUCCESS;
    if (!GetQueuedCompletionStatus(port.get(), &packet.bytes, &packet.key, &packet.record, ms)) {
        const DWORD code = GetLastError();
        if (!packet.record) return code;
        packet.error = code;
    }
    packet.kind = KindOf(packet);
    if (packet.kind == Kind::Stop) stops.fetch_sub(1);
    if (packet.kind == Kind::Item) {
        packet.holder = reinterpret_cast<Record*>(packet.record);
        packet.size = static_cast<DWORD>(packet.holder->length);
        packet.queue = static_cast<WorkQueue*>(packet.record->Pointer);
        packet.number = packet.holder->number;
    }
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Corvel
