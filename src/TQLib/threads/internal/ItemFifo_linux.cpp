#include "TQLib/threads/internal/ItemFifo_linux.h"

#include "TQLib/platform/linux/base/FaultPoint.h"

#include <new>
#include <sys/mman.h>
#include <utility>

namespace Quellan::Corvel {

using Platform::Guard;

namespace {

constexpr DWORD MostKept = 256;  // segments with slots, 16 MB of each queue

}  // namespace

ItemFifo::ItemFifo() noexcept {
    Platform::TellOwnMemory(this, sizeof *this);
}

ItemFifo::~ItemFifo() TQ_NOT_ANALYSED {
    for (Segment* segment = m_first; segment;)
        Delete(std::exchange(segment, segment->following.load()));
    for (Segment* list : {m_free, m_slotless})
        while (list)
            Delete(std::exchange(list, list->nextFree));
}

bool ItemFifo::Begin() noexcept {
    Segment* const segment = NewSegment();
    if (!segment) return false;
    segment->taken = segment->known = segment->tickets = MarkOf(FirstLap, 0);
    m_first = m_last = segment;
    return true;
}

// Memory.

ItemFifo::Segment* ItemFifo::NewSegment() noexcept {
    Segment* segment;
    {
        const Guard lock(m_freeLock);
        if (m_free) {
            --m_freeCount;
            return std::exchange(m_free, m_free->nextFree);
        }
        segment = m_slotless;
        if (segment) m_slotless = segment->nextFree;
    }
    if (!segment && !(segment = new (std::nothrow) Segment)) return nullptr;
    Platform::TellOwnMemory(segment, sizeof *segment);
    if (GetSlots(*segment)) return segment;
    const Guard lock(m_freeLock);
    segment->nextFree = std::exchange(m_slotless, segment);
    return nullptr;
}

// What a slot holds is left as it is: the system's memory is zero, and else it is of an earlier lap.
bool ItemFifo::GetSlots(Segment& segment) noexcept {
    if (Platform::FaultDue("mmap")) return false;
    void* const memory =
        mmap(nullptr, Segment::Bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return false;
    Platform::TellOwnMemory(memory, Segment::Bytes);
    segment.slots = static_cast<Slot*>(memory);
    return true;
}

void ItemFifo::GiveBack(Segment* segment) noexcept {
    {
        const Guard lock(m_freeLock);
        if (m_freeCount < MostKept) {
            ++m_freeCount;
            segment->nextFree = std::exchange(m_free, segment);
            return;
        }
    }
    munmap(std::exchange(segment->slots, nullptr), Segment::Bytes);
    const Guard lock(m_freeLock);
    segment->nextFree = std::exchange(m_slotless, segment);
}

void ItemFifo::Delete(Segment* segment) noexcept {
    if (segment->slots) munmap(segment->slots, Segment::Bytes);
    delete segment;
}

// Pushing.

ItemFifo::PushPlace ItemFifo::BeginPush() noexcept {
    for (;;) {
        Segment* const last = m_last.load();
        const PushPlace place = TryBeginPush();
        if (place.slot || !Append(last)) return place;
    }
}

// False without memory. It is the last one, and follows the one before, before it gives tickets: whoever
// looks for the last ticket, or from the first segment on, misses none.
bool ItemFifo::Append(Segment* full) noexcept {
    Segment* fresh = NewSegment();
    if (!fresh) return m_last.load() != full;
    {
        const Guard lock(m_lastLock);
        const Mark tickets = full->tickets.load();
        if (m_last.load() == full && GivenIn(tickets) == Segment::SlotCount) {
            const DWORD lap = LapIn(tickets) + 1;
            fresh->following = nullptr;
            fresh->left = 0;
            fresh->tickets = MarkOf(lap, 0) | Closed;
            // In this order: a late one who has looked at the places of the earlier use must not find tickets
            // of this one for them.
            fresh->taken = MarkOf(lap, 0);
            fresh->known = MarkOf(lap, 0);
            m_last = fresh;
            full->following = fresh;
            std::exchange(fresh, nullptr)->tickets = MarkOf(lap, 0);
        }
    }
    if (fresh) GiveBack(fresh);
    return true;
}

// Popping.

// Whether it is worth trying again.
bool ItemFifo::FindTicket() noexcept {
    Segment* const segment = m_first.load();
    const Mark mark = segment->taken.load();
    if (m_first.load() != segment || mark < segment->known.load()) return true;
    if (CountIn(mark) == Segment::SlotCount) {
        if (!segment->following.load()) return segment->taken.load() != mark;
        LeaveFirst(segment, mark);
        return true;
    }
    const DWORD given = GivenIn(segment->tickets.load());
    if (given <= CountIn(mark)) return segment->taken.load() != mark;
    // With the lap: what a late one writes here is nothing to those of a later use of the segment.
    segment->known.store(MarkOf(LapIn(mark), given), std::memory_order_relaxed);
    return true;
}

void ItemFifo::LeaveFirst(Segment* segment, Mark mark) noexcept {
    {
        const Guard lock(m_firstLock);
        if (m_first.load() != segment || segment->taken.load() != mark) return;
        m_first = segment->following.load();
    }
    if (Leave(segment)) GiveBack(segment);
}

// Who fills the slot has its ticket already, and calls nothing until it is filled.
void ItemFifo::AwaitPush(PopPlace place) noexcept {
    for (Platform::Backoff backoff; !IsFilled(place);)
        backoff.Pause();
}

bool ItemFifo::PopStop() noexcept {
    DWORD stops = m_stops.load();
    while (stops != 0)
        if (m_stops.compare_exchange_weak(stops, stops - 1)) return true;
    return false;
}

// Numbers.

bool ItemFifo::IsEmpty() const noexcept {
    if (Stops() != 0) return false;
    for (;;) {
        const Segment* const segment = m_first.load();
        const Mark mark = segment->taken.load();
        if (m_first.load() != segment) continue;
        const bool isEmpty = CountIn(mark) == Segment::SlotCount
                                 ? !segment->following.load()
                                 : GivenIn(segment->tickets.load()) <= CountIn(mark);
        if (!isEmpty || segment->taken.load() == mark) return isEmpty;
    }
}

// Read again where the segment came to a new use in between.
ULONGLONG ItemFifo::Pushed() const noexcept {
    for (;;) {
        Segment* const segment = m_last.load();
        const Mark mark = ReadCounter(segment->tickets);
        if (m_last.load() == segment && LapIn(segment->tickets.load()) == LapIn(mark))
            return NumberOf(mark, GivenIn(mark));
    }
}

ULONGLONG ItemFifo::Popped() const noexcept {
    for (;;) {
        Segment* const segment = m_first.load();
        const Mark mark = ReadCounter(segment->taken);
        if (m_first.load() == segment && LapIn(segment->taken.load()) == LapIn(mark))
            return NumberOf(mark, CountIn(mark));
    }
}

}  // namespace Quellan::Corvel
