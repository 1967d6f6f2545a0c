// The completion port of a pool.
#pragma once

#include "TQLib/threads/TQWin32AsynchRoot.h"
#include "TQLib/threads/internal/PoolHandle.h"

#include <atomic>

namespace Quellan::Corvel {

class WorkQueue;

// The port and the packets in it, of which some are the pool's own. Those carry the pool's address in a field
// that the platform reads of no posted packet. For several threads.
class PoolPort {
  public:
    using Record = _TQWin32AsynchRoot::OVERLAPPED_DATA;

    // An item, in a record of its own; a thread's stop; or what somebody else posted, or completed.
    enum class Kind { Item, Stop, Foreign };

    struct Packet {
        ULONG_PTR key = 0;
        DWORD bytes = 0;
        OVERLAPPED* record = nullptr;
        DWORD error = ERROR_SUCCESS;  // with which the operation failed that the packet completes

        Record* Item() const noexcept { return reinterpret_cast<Record*>(record); }
    };

    // `pool` is only compared. Throws "Completion port could not be created for thread pool.".
    explicit PoolPort(const void* pool) : m_pool(pool) {
        MarkAsOwn(m_stop);
        m_port.reset(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
        if (!m_port) TQSysException::ThrowLastError(L"Completion port could not be created for thread pool.");
    }

    // Null once it is closed.
    [[nodiscard]] HANDLE Get() const noexcept { return m_port.get(); }
    void Close() noexcept { m_port.reset(); }

    // Each false with the last error where the port refuses. A record is the port's until it is taken.
    [[nodiscard]] bool PostItem(Record& record, DWORD bytes) noexcept {
        MarkAsOwn(record);
        return PostQueuedCompletionStatus(m_port.get(), bytes, 0, PlatformRecord(record));
    }
    bool PostThreadStop() const noexcept {
        m_stops.fetch_add(1);
        if (PostQueuedCompletionStatus(m_port.get(), StopBytes, 0, PlatformRecord(m_stop))) return true;
        m_stops.fetch_sub(1);
        return false;
    }
    // Stop packets in the port.
    [[nodiscard]] DWORD Stops() const noexcept { return m_stops.load(); }

    // Waits up to `ms` milliseconds for a packet. The platform's code, WAIT_TIMEOUT when the time is up.
    [[nodiscard]] DWORD Take(DWORD ms, Packet& packet) noexcept {
        if (!GetQueuedCompletionStatus(m_port.get(), &packet.bytes, &packet.key, &packet.record, ms)) {
            const DWORD code = GetLastError();
            if (!packet.record) return code;
            packet.error = code;
        }
        return ERROR_SUCCESS;
    }
    // A stop packet was taken.
    void SettleStop() noexcept { m_stops.fetch_sub(1); }
    // Nothing is read of a record that comes with a key.
    [[nodiscard]] Kind KindOf(const Packet& packet) const noexcept {
        if (packet.key != 0 || !packet.record || packet.record->hEvent != m_pool) return Kind::Foreign;
        return packet.record == PlatformRecord(m_stop) ? Kind::Stop : Kind::Item;
    }
    // The queue that an item belongs to, null for an anonymous one. It lies in another such field.
    static void SetQueue(Record& record, WorkQueue* queue) noexcept {
        PlatformRecord(record)->Pointer = queue;
    }
    [[nodiscard]] static WorkQueue* QueueOf(Record& record) noexcept {
        return static_cast<WorkQueue*>(PlatformRecord(record)->Pointer);
    }

  private:
    static constexpr DWORD StopBytes = 0xFFFFFFFF;  // of a stop packet, which carries no data

    static OVERLAPPED* PlatformRecord(Record& record) noexcept {
        return reinterpret_cast<OVERLAPPED*>(record.overlapped);
    }
    void MarkAsOwn(Record& record) const noexcept {
        PlatformRecord(record)->hEvent = const_cast<void*>(m_pool);
    }

    const void* const m_pool;
    PoolHandle m_port;
    mutable Record m_stop{};
    mutable std::atomic<DWORD> m_stops = 0;
};

}  // namespace Quellan::Corvel
