// Completion ports and the threads that wait at them.
//
// A packet goes to a waiting thread straight away, under the port's lock; only while nobody waits it is
// queued. So threads wait only where the queue is empty. The concurrency value limits nothing: nobody tells
// the layer which threads are blocked in a system call or in another library's lock, and a packet that is
// held back for one of those waits for nothing.
#pragma once

#include "TQLib/platform/linux/objects/PacketQueue.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"

namespace Quellan::Platform {

class PortSeat;

// Lives as long as handles or threads know it. For several threads.
class CompletionPort {
  public:
    // 6 (ERROR_INVALID_HANDLE) once closed, 1450 (ERROR_NO_SYSTEM_RESOURCES).
    DWORD Post(const Packet& packet) noexcept;
    // 258 (WAIT_TIMEOUT) or 735 (ERROR_ABANDONED_WAIT_0).
    DWORD Get(PortSeat& seat, DWORD ms, Packet& packet) noexcept;
    // A packet that is there, for a thread that has just taken one.
    bool TryGetNext(Packet& packet) noexcept;
    // Drops the packets and ends all waits.
    void Close() noexcept;

  private:
    // Outcomes of a wait.
    static constexpr DWORD Taken = 0;
    static constexpr DWORD Abandoned = 1;

    PortSeat* Waiting() noexcept TQ_REQUIRES(m_lock);
    void Add(PortSeat& seat) noexcept TQ_REQUIRES(m_lock);
    void Remove(PortSeat& seat) noexcept TQ_REQUIRES(m_lock);
    void EndWait(DWORD outcome, WakeList& wakes) noexcept TQ_REQUIRES(m_lock);
    // Once closed: nobody looks at them any more.
    void DropPackets() noexcept TQ_NOT_ANALYSED { m_packets.Clear(); }

    // What each call looks at lies in one cache line, as far as it goes.
    alignas(64) ObjectLock<ShortLock> m_lock;

    bool m_closed TQ_GUARDED_BY(m_lock) = false;
    PacketQueue m_packets TQ_GUARDED_BY(m_lock);
    PortSeat* m_waiting TQ_GUARDED_BY(m_lock) = nullptr;  // the last to come is the first
    // Of the process whose threads wait.
    std::uint32_t m_generation TQ_GUARDED_BY(m_lock) = ForkGeneration();
};

// A thread's place at the port that it takes packets from. The thread's own, but for what its port changes.
class PortSeat {
  public:
    explicit PortSeat(Waiter& waiter) noexcept : m_waiter(waiter) {}
    PortSeat(const PortSeat&) = delete;
    PortSeat& operator=(const PortSeat&) = delete;

    // The calling thread's; null when there is no memory for it.
    static PortSeat* Current() noexcept;

    DWORD Post(HANDLE port, const Packet& packet) noexcept;
    DWORD Get(HANDLE port, DWORD ms, Packet& packet) noexcept;
    // After a Get that took a packet.
    bool TryGetNext(Packet& packet) noexcept { return m_port.object->TryGetNext(packet); }

    // At the end of the thread, on the thread itself.
    void Leave() noexcept;

  private:
    friend class CompletionPort;

    // A port and the handle by which it was found: while that is open it need not be looked up again.
    struct Known {
        KnownHandle handle;
        std::shared_ptr<CompletionPort> object;

        bool IsStill(HANDLE port) const noexcept { return handle.IsOpen(port); }
        // 6 (ERROR_INVALID_HANDLE) or 5 (ERROR_ACCESS_DENIED), with nothing changed.
        DWORD Find(HANDLE port) noexcept;
    };

    Waiter& m_waiter;
    Known m_port;      // the last port it asked
    Known m_postedTo;  // the last port it posted to

    // Guarded by the lock of m_port.
    bool m_isWaiting = false;
    PortSeat* m_previous = nullptr;
    PortSeat* m_next = nullptr;
    Packet m_packet;  // what its wait ended with
};

// What a port's handle names. The port itself is not kept open by threads that wait at it.
class PortObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "completion port",
                                     .closedByCloseHandle = true,
                                     .rights = {.read = READ_CONTROL | 0x1,
                                                .write = READ_CONTROL | IO_COMPLETION_MODIFY_STATE,
                                                .execute = READ_CONTROL | SYNCHRONIZE,
                                                .all = IO_COMPLETION_ALL_ACCESS}};

    // May throw std::bad_alloc.
    PortObject() : Object(Kind), m_port(std::make_shared<CompletionPort>()) {}
    ~PortObject() override { m_port->Close(); }

    const std::shared_ptr<CompletionPort>& Port() const noexcept { return m_port; }

  private:
    const std::shared_ptr<CompletionPort> m_port;
};

}  // namespace Quellan::Platform
