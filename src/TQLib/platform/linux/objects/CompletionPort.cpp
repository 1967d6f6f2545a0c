#include "TQLib/platform/linux/objects/CompletionPort.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"

namespace Quellan::Platform {

namespace {

TQ_THERE_WITH_THREAD constinit thread_local PortSeat* t_seat = nullptr;

}  // namespace

DWORD CompletionPort::Post(const Packet& packet) noexcept {
    TellReleased(this);
    for (PacketQueue::BlockPtr block;;) {
        {
            WakeList wakes;
            const Guard lock(m_lock);
            if (m_closed) return ERROR_INVALID_HANDLE;
            if (PortSeat* const seat = Waiting()) {
                seat->m_packet = packet;
                EndWait(Taken, wakes);
                return ERROR_SUCCESS;
            }
            if (m_packets.Push(packet, block)) return ERROR_SUCCESS;
        }
        block.reset(new (std::nothrow) PacketQueue::Block);
        if (!block) return ERROR_NO_SYSTEM_RESOURCES;
    }
}

DWORD CompletionPort::Get(PortSeat& seat, DWORD ms, Packet& packet) noexcept {
    {
        PacketQueue::BlockPtr drained;
        const Guard lock(m_lock);
        if (m_closed) return ERROR_ABANDONED_WAIT_0;
        if (!m_packets.IsEmpty()) {
            packet = m_packets.Pop(drained);
            TellAcquired(this);
            return ERROR_SUCCESS;
        }
        if (ms == 0) return WAIT_TIMEOUT;
        Add(seat);
        seat.m_waiter.BeginWait();
    }
    Waiter& waiter = seat.m_waiter;
    if (!waiter.Sleep(DeadlineAfter(ms))) {
        const Guard lock(m_lock);
        if (seat.m_isWaiting) {  // not ended at the last moment
            Remove(seat);
            return WAIT_TIMEOUT;
        }
    }
    if (waiter.Outcome() != Taken) return ERROR_ABANDONED_WAIT_0;
    packet = seat.m_packet;
    TellAcquired(this);
    return ERROR_SUCCESS;
}

bool CompletionPort::TryGetNext(Packet& packet) noexcept {
    PacketQueue::BlockPtr drained;
    const Guard lock(m_lock);
    if (m_closed || m_packets.IsEmpty()) return false;
    packet = m_packets.Pop(drained);
    TellAcquired(this);
    return true;
}

void CompletionPort::Close() noexcept {
    {
        WakeList wakes;
        const Guard lock(m_lock);
        m_closed = true;
        while (Waiting())
            EndWait(Abandoned, wakes);
    }
    DropPackets();
}

// None of those who waited in the parent: what goes to them is lost.
PortSeat* CompletionPort::Waiting() noexcept {
    if (std::exchange(m_generation, ForkGeneration()) != ForkGeneration()) m_waiting = nullptr;
    return m_waiting;
}

void CompletionPort::Add(PortSeat& seat) noexcept {
    seat.m_isWaiting = true;
    seat.m_previous = nullptr;
    seat.m_next = Waiting();
    if (m_waiting) m_waiting->m_previous = &seat;
    m_waiting = &seat;
}

void CompletionPort::Remove(PortSeat& seat) noexcept {
    seat.m_isWaiting = false;
    (seat.m_previous ? seat.m_previous->m_next : m_waiting) = seat.m_next;
    if (seat.m_next) seat.m_next->m_previous = seat.m_previous;
}

// Of the thread that came last. Nothing of its seat is touched once its wait has ended.
void CompletionPort::EndWait(DWORD outcome, WakeList& wakes) noexcept {
    PortSeat& seat = *m_waiting;
    Remove(seat);
    seat.m_waiter.EndWait(outcome, wakes);
}

PortSeat* PortSeat::Current() noexcept {
    if (!t_seat)
        if (Thread* const self = Thread::Current()) t_seat = &self->Seat();
    return t_seat;
}

DWORD PortSeat::Known::Find(HANDLE port) noexcept {
    const HandleRef<PortObject> found(port);
    if (!found) return ERROR_INVALID_HANDLE;
    if (!(found.Access() & IO_COMPLETION_MODIFY_STATE)) return ERROR_ACCESS_DENIED;
    handle = KnownHandle(port);
    object = found->Port();
    return ERROR_SUCCESS;
}

DWORD PortSeat::Post(HANDLE port, const Packet& packet) noexcept {
    if (!m_postedTo.IsStill(port))
        if (DWORD code = m_postedTo.Find(port)) return code;
    return m_postedTo.object->Post(packet);
}

DWORD PortSeat::Get(HANDLE port, DWORD ms, Packet& packet) noexcept {
    if (!m_port.IsStill(port)) {
        Known next;
        if (DWORD code = next.Find(port)) return code;
        m_port = std::move(next);
    }
    return m_port.object->Get(*this, ms, packet);
}

void PortSeat::Leave() noexcept {
    m_port = {};
    m_postedTo = {};
    t_seat = nullptr;
}

}  // namespace Quellan::Platform
