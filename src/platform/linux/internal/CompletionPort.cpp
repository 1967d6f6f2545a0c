#include "platform/linux/internal/CompletionPort.h"

#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/ThreadObject.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string_view>

namespace Quellan::Corvel::Platform {

namespace {

constexpr Deadline WatchPeriod = 20 * NanosecondsInMs;

[[gnu::tls_model("initial-exec")]] constinit thread_local PortSeat* t_seat = nullptr;

// Whether the kernel has put the thread to sleep. One that cannot be looked at counts as asleep: too many
// threads that run are better than packets that nobody takes.
bool IsAsleep(DWORD thread) noexcept {
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%u/stat", thread);
    char buffer[1024];
    const std::string_view status = ReadStart(path, buffer);
    const std::size_t afterName = status.rfind(')') + 1;  // the name may hold anything
    return !status.substr(std::min(afterName, status.size())).starts_with(" R");
}

}  // namespace

bool SeatList::Has(const PortSeat& seat) const noexcept {
    return seat.m_list == this;
}

void SeatList::Add(PortSeat& seat) noexcept {
    seat.m_list = this;
    seat.m_previous = nullptr;
    seat.m_next = m_first;
    (m_first ? m_first->m_previous : m_last) = &seat;
    m_first = &seat;
    ++m_size;
}

void SeatList::Remove(PortSeat& seat) noexcept {
    seat.m_list = nullptr;
    (seat.m_previous ? seat.m_previous->m_next : m_first) = seat.m_next;
    (seat.m_next ? seat.m_next->m_previous : m_last) = seat.m_previous;
    --m_size;
}

DWORD CompletionPort::Post(const Packet& packet) noexcept {
    for (PacketQueue::BlockPtr block;;) {
        {
            WakeList wakes;
            const std::scoped_lock lock(m_lock);
            if (m_closed) return ERROR_INVALID_HANDLE;
            if (m_waiting.First() && m_running.Size() < m_concurrency) {
                HandOver(packet, wakes);
                return ERROR_SUCCESS;
            }
            if (m_packets.Push(packet, block)) {
                AppointWatcher(wakes);
                return ERROR_SUCCESS;
            }
        }
        block.reset(new (std::nothrow) PacketQueue::Block);
        if (!block) return ERROR_NO_SYSTEM_RESOURCES;
    }
}

DWORD CompletionPort::Get(PortSeat& seat, DWORD ms, Packet& packet) noexcept {
    bool watching = false;
    {
        PacketQueue::BlockPtr drained;
        const std::scoped_lock lock(m_lock);
        if (m_closed) return ERROR_ABANDONED_WAIT_0;
        const bool wasRunning = m_running.Has(seat);
        const bool take = m_running.Size() - wasRunning < m_concurrency && !m_packets.IsEmpty();
        if (take) packet = m_packets.Pop(drained);
        if (take || ms == 0) {
            if (!wasRunning) m_running.Add(seat);
            return take ? ERROR_SUCCESS : WAIT_TIMEOUT;
        }
        if (wasRunning) m_running.Remove(seat);
        m_waiting.Add(seat);
        seat.m_waiter.BeginWait();
        watching = !m_watcher && !m_packets.IsEmpty();
        if (watching) m_watcher = &seat;
    }
    if (DWORD code = Await(seat, DeadlineAfter(ms), watching)) return code;
    packet = seat.m_packet;
    return ERROR_SUCCESS;
}

DWORD CompletionPort::Await(PortSeat& seat, Deadline deadline, bool watching) noexcept {
    Waiter& waiter = seat.m_waiter;
    for (bool ended = waiter.Spin();; ended = false) {
        if (!ended) ended = waiter.SleepOnWord(watching ? std::min(deadline, Now() + WatchPeriod) : deadline);
        if (ended && waiter.Outcome() != Watch) break;
        const bool looking = watching && !ended;
        {
            WakeList wakes;
            const std::scoped_lock lock(m_lock);
            if (!m_waiting.Has(seat)) break;  // ended at the last moment
            watching = m_watcher == &seat && !m_packets.IsEmpty();
            if (m_watcher == &seat && !watching) m_watcher = nullptr;
            if (!ended && Now() >= deadline) {
                StopWaiting(seat);
                m_running.Add(seat);
                AppointWatcher(wakes);
                return WAIT_TIMEOUT;
            }
            waiter.BeginWait();
        }
        if (looking && watching) FindStopped();
    }
    return waiter.Outcome() == Taken ? ERROR_SUCCESS : ERROR_ABANDONED_WAIT_0;
}

bool CompletionPort::TryGetNext(Packet& packet) noexcept {
    PacketQueue::BlockPtr drained;
    const std::scoped_lock lock(m_lock);
    if (m_closed || m_packets.IsEmpty()) return false;
    packet = m_packets.Pop(drained);
    return true;
}

void CompletionPort::Close() noexcept {
    {
        WakeList wakes;
        const std::scoped_lock lock(m_lock);
        m_closed = true;
        while (PortSeat* seat = m_waiting.First()) {
            StopWaiting(*seat);
            seat->m_waiter.EndWait(Abandoned, wakes);
        }
    }
    m_packets.Clear();  // nobody looks at them any more
}

bool CompletionPort::Stop(PortSeat& seat) noexcept {
    PacketQueue::BlockPtr drained;
    WakeList wakes;
    const std::scoped_lock lock(m_lock);
    if (!m_running.Has(seat)) return false;
    m_running.Remove(seat);
    HandOverNext(wakes, drained);
    return true;
}

void CompletionPort::Run(PortSeat& seat) noexcept {
    const std::scoped_lock lock(m_lock);
    m_running.Add(seat);
}

void CompletionPort::StopWaiting(PortSeat& seat) noexcept {
    m_waiting.Remove(seat);
    if (m_watcher == &seat) m_watcher = nullptr;
}

// Nothing of the seat is touched once its wait has ended.
void CompletionPort::HandOver(const Packet& packet, WakeList& wakes) noexcept {
    PortSeat& seat = *m_waiting.First();
    StopWaiting(seat);
    m_running.Add(seat);
    seat.m_packet = packet;
    seat.m_waiter.EndWait(Taken, wakes);
}

// After a thread has stopped.
void CompletionPort::HandOverNext(WakeList& wakes, PacketQueue::BlockPtr& drained) noexcept {
    if (!m_waiting.First() || m_running.Size() >= m_concurrency || m_packets.IsEmpty()) return;
    HandOver(m_packets.Pop(drained), wakes);
    AppointWatcher(wakes);
}

// Of the waiting threads the one that will wait longest.
void CompletionPort::AppointWatcher(WakeList& wakes) noexcept {
    if (m_watcher || !m_waiting.Last() || m_packets.IsEmpty()) return;
    m_watcher = m_waiting.Last();
    m_watcher->m_waiter.EndWait(Watch, wakes);
}

void CompletionPort::FindStopped() noexcept {
    struct Suspect {
        PortSeat* seat;
        DWORD thread;
    };
    std::array<Suspect, 64> suspects;
    std::size_t count = 0;
    {
        const std::scoped_lock lock(m_lock);
        for (PortSeat* seat = m_running.First(); seat && count < suspects.size(); seat = seat->m_next)
            suspects[count++] = {seat, seat->m_waiter.ThreadId()};
    }
    for (const Suspect& suspect : std::span(suspects).first(count))
        if (IsAsleep(suspect.thread)) StopIfRunning(suspect.seat, suspect.thread);
}

// The thread may have ended meanwhile: the seat is only looked for.
void CompletionPort::StopIfRunning(const PortSeat* wanted, DWORD thread) noexcept {
    PacketQueue::BlockPtr drained;
    WakeList wakes;
    const std::scoped_lock lock(m_lock);
    PortSeat* seat = m_running.First();
    while (seat && (seat != wanted || seat->m_waiter.ThreadId() != thread))
        seat = seat->m_next;
    if (!seat) return;
    m_running.Remove(*seat);
    HandOverNext(wakes, drained);
}

PortSeat* PortSeat::Current() noexcept {
    if (!t_seat)
        if (Thread* const self = Thread::Current()) t_seat = &self->Seat();
    return t_seat;
}

PortSeat* PortSeat::Used() noexcept {
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
        if (next.object != m_port.object) Stop();
        m_port = std::move(next);
    }
    return m_port.object->Get(*this, ms, packet);
}

void PortSeat::Leave() noexcept {
    Stop();
    m_port = {};
    m_postedTo = {};
    t_seat = nullptr;
}

}  // namespace Quellan::Corvel::Platform
