#include "platform/linux/internal/CompletionPort.h"

#include "platform/linux/internal/ThreadObject.h"

#include <mutex>

namespace Quellan::Corvel::Platform {

namespace {

[[gnu::tls_model("initial-exec")]] constinit thread_local PortSeat* t_seat = nullptr;

}  // namespace

DWORD CompletionPort::Post(const Packet& packet) noexcept {
    for (PacketQueue::BlockPtr block;;) {
        {
            WakeList wakes;
            const std::scoped_lock lock(m_lock);
            if (m_closed) return ERROR_INVALID_HANDLE;
            if (m_top && m_running < m_concurrency) {
                HandOver(packet, wakes);
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
        const std::scoped_lock lock(m_lock);
        if (m_closed) return ERROR_ABANDONED_WAIT_0;
        const DWORD others = m_running - seat.m_running;
        const bool take = others < m_concurrency && !m_packets.IsEmpty();
        if (take) packet = m_packets.Pop(drained);
        seat.m_running = take || ms == 0;
        m_running = others + seat.m_running;
        if (take) return ERROR_SUCCESS;
        if (ms == 0) return WAIT_TIMEOUT;
        Push(seat);
        seat.m_waiter.BeginWait();
    }
    if (!seat.m_waiter.SleepAtPort(DeadlineAfter(ms))) {
        const std::scoped_lock lock(m_lock);
        if (seat.m_waiting) {
            Remove(seat);
            seat.m_running = true;
            ++m_running;
            return WAIT_TIMEOUT;
        }
    }
    if (seat.m_waiter.Outcome() == Abandoned) return ERROR_ABANDONED_WAIT_0;
    packet = seat.m_packet;
    return ERROR_SUCCESS;
}

bool CompletionPort::TryGetNext(Packet& packet) noexcept {
    PacketQueue::BlockPtr drained;
    const std::scoped_lock lock(m_lock);
    if (m_packets.IsEmpty()) return false;
    packet = m_packets.Pop(drained);
    return true;
}

void CompletionPort::Close() noexcept {
    {
        WakeList wakes;
        const std::scoped_lock lock(m_lock);
        m_closed = true;
        while (m_top) {
            PortSeat& seat = *m_top;
            Remove(seat);
            seat.m_waiter.EndWait(Abandoned, wakes);
        }
    }
    m_packets.Clear();  // nobody looks at them any more
}

void CompletionPort::Stop(PortSeat& seat) noexcept {
    PacketQueue::BlockPtr drained;
    WakeList wakes;
    const std::scoped_lock lock(m_lock);
    seat.m_running = false;
    --m_running;
    if (m_top && m_running < m_concurrency && !m_packets.IsEmpty()) HandOver(m_packets.Pop(drained), wakes);
}

void CompletionPort::Run(PortSeat& seat) noexcept {
    const std::scoped_lock lock(m_lock);
    seat.m_running = true;
    ++m_running;
}

void CompletionPort::Push(PortSeat& seat) noexcept {
    seat.m_waiting = true;
    seat.m_above = nullptr;
    seat.m_below = m_top;
    if (m_top) m_top->m_above = &seat;
    m_top = &seat;
}

void CompletionPort::Remove(PortSeat& seat) noexcept {
    seat.m_waiting = false;
    (seat.m_above ? seat.m_above->m_below : m_top) = seat.m_below;
    if (seat.m_below) seat.m_below->m_above = seat.m_above;
}

// Nothing of the seat is touched once its wait has ended.
void CompletionPort::HandOver(const Packet& packet, WakeList& wakes) noexcept {
    PortSeat& seat = *m_top;
    Remove(seat);
    seat.m_packet = packet;
    seat.m_running = true;
    ++m_running;
    seat.m_waiter.EndWait(Taken, wakes);
}

PortSeat* PortSeat::Current() noexcept {
    if (!t_seat)
        if (Thread* const thread = Thread::Current()) t_seat = &thread->Seat();
    return t_seat;
}

PortSeat* PortSeat::Used() noexcept {
    return t_seat;
}

DWORD PortSeat::Known::Find(HANDLE port) noexcept {
    const HandleRef<PortObject> found(port);
    if (!found) return ERROR_INVALID_HANDLE;
    if (!(found.Access() & IO_COMPLETION_MODIFY_STATE)) return ERROR_ACCESS_DENIED;
    handle = port;
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
        if (next.object != m_port.object) Stop();
        m_port = std::move(next);
    }
    return m_port.object->Get(*this, ms, packet);
}

bool PortSeat::Stop() noexcept {
    if (!m_running) return false;
    m_port.object->Stop(*this);
    return true;
}

void PortSeat::Leave() noexcept {
    Stop();
    m_port = {};
    m_postedTo = {};
    t_seat = nullptr;
}

}  // namespace Quellan::Corvel::Platform
