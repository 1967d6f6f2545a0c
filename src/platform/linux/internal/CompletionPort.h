// Completion ports and the threads that work for them.
//
// A packet goes to a waiting thread straight away, under the port's lock, as long as the concurrency value
// allows one more to run; only otherwise is it queued. So packets are queued only while nobody waits or
// enough threads run, and what changes that - a running thread that stops, for whatever reason - hands out
// the next one.
#pragma once

#include "platform/linux/internal/PacketQueue.h"
#include "platform/linux/internal/WaitEngine.h"

namespace Quellan::Corvel::Platform {

class PortSeat;

// Lives as long as handles or threads know it. For several threads.
class CompletionPort {
  public:
    // May throw std::bad_alloc.
    explicit CompletionPort(DWORD concurrency) : m_concurrency(concurrency) {}

    // 6 (ERROR_INVALID_HANDLE) once closed, 1450 (ERROR_NO_SYSTEM_RESOURCES).
    DWORD Post(const Packet& packet) noexcept;
    // For a thread that works for this port. 258 (WAIT_TIMEOUT) or 735 (ERROR_ABANDONED_WAIT_0).
    DWORD Get(PortSeat& seat, DWORD ms, Packet& packet) noexcept;
    // A packet that is there, for a thread that runs for this port.
    bool TryGetNext(Packet& packet) noexcept;
    // Drops the packets and ends all waits.
    void Close() noexcept;

    // A thread that works for this port stops or goes on to run.
    void Stop(PortSeat& seat) noexcept;
    void Run(PortSeat& seat) noexcept;

  private:
    static constexpr DWORD Taken = 0;
    static constexpr DWORD Abandoned = 1;

    void Push(PortSeat& seat) noexcept;
    void Remove(PortSeat& seat) noexcept;
    void HandOver(const Packet& packet, WakeList& wakes) noexcept;

    const DWORD m_concurrency;
    ShortLock m_lock;
    DWORD m_running = 0;        // guarded by m_lock
    bool m_closed = false;      // guarded by m_lock
    PortSeat* m_top = nullptr;  // guarded by m_lock: the thread that began to wait last
    PacketQueue m_packets;      // guarded by m_lock
};

// A thread's place at the port that it works for. The thread's own, but for what its port changes while it
// waits.
class PortSeat {
  public:
    explicit PortSeat(Waiter& waiter) noexcept : m_waiter(waiter) {}
    PortSeat(const PortSeat&) = delete;
    PortSeat& operator=(const PortSeat&) = delete;

    // The calling thread's; null when there is no memory for it.
    static PortSeat* Current() noexcept;
    // The same, or null when it has not been used yet.
    static PortSeat* Used() noexcept;

    DWORD Post(HANDLE port, const Packet& packet) noexcept;
    DWORD Get(HANDLE port, DWORD ms, Packet& packet) noexcept;
    // After a Get that took a packet.
    bool TryGetNext(Packet& packet) noexcept { return m_port.object->TryGetNext(packet); }

    // At the end of the thread, on the thread itself.
    void Leave() noexcept;
    // Around a time in which the thread cannot run. False when it does not run for a port.
    bool Stop() noexcept;
    void Run() noexcept { m_port.object->Run(*this); }

  private:
    friend class CompletionPort;

    // A port and the handle by which it was found: while that is open it need not be looked up again.
    struct Known {
        HANDLE handle = nullptr;
        std::shared_ptr<CompletionPort> object;

        bool IsStill(HANDLE port) const noexcept { return handle == port && IsOpenHandle(port); }
        // 6 (ERROR_INVALID_HANDLE) or 5 (ERROR_ACCESS_DENIED), with nothing changed.
        DWORD Find(HANDLE port) noexcept;
    };

    Waiter& m_waiter;
    Known m_port;      // what the thread works for
    Known m_postedTo;  // the last port it posted to

    // Guarded by the port's lock while the thread waits.
    PortSeat* m_above = nullptr;
    PortSeat* m_below = nullptr;
    bool m_waiting = false;
    bool m_running = false;
    Packet m_packet;
};

// The calling thread cannot run in this scope: another one may, for the port it works for.
class PortPause {
  public:
    PortPause() noexcept {
        PortSeat* const seat = PortSeat::Used();
        if (seat && seat->Stop()) m_stopped = seat;
    }
    PortPause(const PortPause&) = delete;
    PortPause& operator=(const PortPause&) = delete;
    ~PortPause() {
        if (m_stopped) m_stopped->Run();
    }

  private:
    PortSeat* m_stopped = nullptr;
};

// What a port's handle names. The port itself is not kept open by threads that wait at it.
class PortObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "completion port", .closedByCloseHandle = true};

    // May throw std::bad_alloc.
    explicit PortObject(DWORD concurrency)
        : Object(Kind), m_port(std::make_shared<CompletionPort>(concurrency)) {}
    ~PortObject() override { m_port->Close(); }

    const std::shared_ptr<CompletionPort>& Port() const noexcept { return m_port; }

  private:
    const std::shared_ptr<CompletionPort> m_port;
};

}  // namespace Quellan::Corvel::Platform
