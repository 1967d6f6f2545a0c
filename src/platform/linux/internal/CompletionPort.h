// Completion ports and the threads that work for them.
//
// A packet goes to a waiting thread straight away, under the port's lock, as long as the concurrency value
// allows one more to run; only otherwise is it queued. So packets are queued only while nobody waits or
// enough threads run, and what changes that - a running thread that stops, for whatever reason - hands out
// the next one.
//
// What a thread does outside of the layer is not seen at once. While packets and threads wait, one of those
// looks every now and then whether the running threads do run.
#pragma once

#include "platform/linux/internal/PacketQueue.h"
#include "platform/linux/internal/WaitEngine.h"

namespace Quellan::Corvel::Platform {

class PortSeat;

// The threads of a port that are in one state. Guarded by the port's lock, as are the seats' links.
class SeatList {
  public:
    SeatList() = default;
    SeatList(const SeatList&) = delete;
    SeatList& operator=(const SeatList&) = delete;

    PortSeat* First() const noexcept { return m_first; }
    PortSeat* Last() const noexcept { return m_last; }
    DWORD Size() const noexcept { return m_size; }
    bool Has(const PortSeat& seat) const noexcept;
    // The first one from now on; a seat is in one list at most.
    void Add(PortSeat& seat) noexcept;
    void Remove(PortSeat& seat) noexcept;

  private:
    PortSeat* m_first = nullptr;
    PortSeat* m_last = nullptr;
    DWORD m_size = 0;
};

// Lives as long as handles or threads know it. For several threads.
class CompletionPort {
  public:
    // May throw std::bad_alloc.
    explicit CompletionPort(DWORD concurrency) : m_concurrency(concurrency) {}

    // 6 (ERROR_INVALID_HANDLE) once closed, 1450 (ERROR_NO_SYSTEM_RESOURCES).
    DWORD Post(const Packet& packet) noexcept;
    // For a thread that works for this port. 258 (WAIT_TIMEOUT) or 735 (ERROR_ABANDONED_WAIT_0).
    DWORD Get(PortSeat& seat, DWORD ms, Packet& packet) noexcept;
    // A packet that is there, for a thread that has just taken one.
    bool TryGetNext(Packet& packet) noexcept;
    // Drops the packets and ends all waits.
    void Close() noexcept;

    // A thread that works for this port stops, if it runs for it, or goes on to run.
    bool Stop(PortSeat& seat) noexcept;
    void Run(PortSeat& seat) noexcept;

  private:
    // Outcomes of a wait; a thread that is to watch the running ones goes on to wait.
    static constexpr DWORD Taken = 0;
    static constexpr DWORD Abandoned = 1;
    static constexpr DWORD Watch = 2;

    DWORD Await(PortSeat& seat, Deadline deadline, bool watching) noexcept;
    void StopWaiting(PortSeat& seat) noexcept;
    void HandOver(const Packet& packet, WakeList& wakes) noexcept;
    void HandOverNext(WakeList& wakes, PacketQueue::BlockPtr& drained) noexcept;
    void AppointWatcher(WakeList& wakes) noexcept;
    void FindStopped() noexcept;
    void StopIfRunning(const PortSeat* wanted, DWORD thread) noexcept;

    // What each call looks at lies in one cache line, as far as it goes.
    alignas(64) ShortLock m_lock;

    // Guarded by m_lock.
    bool m_closed = false;
    const DWORD m_concurrency;
    PacketQueue m_packets;  // not looked at once closed
    SeatList m_waiting;     // the last to come is the first
    SeatList m_running;
    PortSeat* m_watcher = nullptr;  // one of m_waiting
};

// A thread's place at the port that it works for. The thread's own, but for what its port changes.
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
    bool Stop() noexcept { return m_port.object && m_port.object->Stop(*this); }
    void Run() noexcept { m_port.object->Run(*this); }

  private:
    friend class CompletionPort;
    friend class SeatList;

    // A port and the handle by which it was found: while that is open it need not be looked up again.
    struct Known {
        KnownHandle handle;
        std::shared_ptr<CompletionPort> object;

        bool IsStill(HANDLE port) const noexcept { return handle.IsOpen(port); }
        // 6 (ERROR_INVALID_HANDLE) or 5 (ERROR_ACCESS_DENIED), with nothing changed.
        DWORD Find(HANDLE port) noexcept;
    };

    Waiter& m_waiter;
    Known m_port;      // what the thread works for
    Known m_postedTo;  // the last port it posted to

    // Guarded by the lock of m_port.
    SeatList* m_list = nullptr;
    PortSeat* m_previous = nullptr;
    PortSeat* m_next = nullptr;
    Packet m_packet;  // what its wait ended with
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
