#include "TQLib/threads/internal/PoolHandle.h"
#include "TQLib/threads/internal/PoolPort.h"

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

    const void* const pool;
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

DWORD PoolPort::Stops() const noexcept {
    return m_impl->stops.load();
}

DWORD PoolPort::PostItem(const ItemTag& tag, const void* data, DWORD size) {
    Record* const record = _TQWin32AsynchRoot::AllocOverlapped(size, true, 0);
    if (size != 0) std::memcpy(record->data, data, size);
    record->number = tag.number;
    PlatformRecord(*record)->Pointer = tag.queue;
    m_impl->MarkAsOwn(*record);
    if (PostQueuedCompletionStatus(m_impl->port.get(), size, 0, PlatformRecord(*record)))
        return ERROR_SUCCESS;
    const DWORD code = GetLastError();
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

DWORD PoolPort::Take(DWORD ms, Packet& packet) noexcept {
    if (!GetQueuedCompletionStatus(m_impl->port.get(), &packet.bytes, &packet.key, &packet.record, ms)) {
        const DWORD code = GetLastError();
        if (!packet.record) return code;
        packet.error = code;
    }
    packet.kind = m_impl->KindOf(packet);
    if (packet.kind == Kind::Stop) m_impl->stops.fetch_sub(1);
    if (packet.kind == Kind::Item) {
        packet.holder = reinterpret_cast<Record*>(packet.record);
        packet.size = static_cast<DWORD>(packet.holder->length);
        packet.tag = {static_cast<WorkQueue*>(packet.record->Pointer), packet.holder->number};
    }
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Corvel
