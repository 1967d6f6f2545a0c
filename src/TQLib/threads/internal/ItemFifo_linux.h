// The items of a pool in memory.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/threads/internal/PoolCounters.h"
#include "TQLib/threads/internal/PoolPort.h"

#include <atomic>

namespace Quellan::Corvel {

// First in, first out. Each item lies in a slot of its own, with its data where these are short; slots stand
// in segments, whose memory comes from the system and goes back to it, but for what is kept for the next
// items.
//
// Nobody waits for a lock, but once in a segment. Who pushes takes a ticket, which is the item's place in the
// order, and then fills the slot. Who pops takes the next place for which there is a ticket; where he is
// ahead of the one who fills it he waits those moments. Behind the items are the stops of threads, which carry
// nothing. For several threads.
//
// Somebody may hold the address of a segment that has been drained since, and add to its tickets in vain: so
// segments themselves stay as long as the queue, and are only used again. A lap tells the uses of a segment
// apart: it is the number of the segment in the queue, which does not come round before 2^41 items.
class ItemFifo {
  public:
    struct alignas(64) Slot {
        // Of an item that its poster has taken back.
        static constexpr DWORD Void = ~DWORD{0};

        std::atomic<DWORD> lap;  // of the segment, once the slot is filled
        DWORD size;
        WorkQueue* queue;  // of the item's requestor, null for an anonymous item
        DWORD epoch;       // of that queue
        union {
            BYTE data[PoolPort::Packet::InlineBytes];
            PoolPort::Record* holder;  // of longer data
        };
    };
    static_assert(sizeof(Slot) == 128);

  private:
    // A lap, and in the lower half a number of slots.
    using Mark = ULONGLONG;

    struct Segment {
        static constexpr DWORD SlotCount = 512;
        static constexpr std::size_t Bytes = SlotCount * sizeof(Slot);

        // Those who push: how many tickets there were, and are asked for in vain.
        alignas(128) std::atomic<Mark> tickets = Closed;
        std::atomic<Segment*> following = nullptr;
        // Those who pop: how many places were taken, for how many it is known that there are tickets, and how
        // many are no longer used; the segment itself counts as one of the last for as long as it is the
        // first.
        alignas(128) std::atomic<Mark> taken = 0;
        std::atomic<Mark> known = 0;
        std::atomic<DWORD> left = 0;
        alignas(128) Slot* slots = nullptr;
        Segment* nextFree = nullptr;
    };

    static constexpr Mark Closed = 0x80000000;  // no ticket is given yet
    static constexpr DWORD FirstLap = 1;        // fresh memory is zero

  public:
    // A slot that is one's own until it is filled, and one until it is emptied.
    struct PushPlace {
        Slot* slot;
        DWORD lap;
    };
    class PopPlace {
      public:
        PopPlace() noexcept = default;
        explicit operator bool() const noexcept { return m_segment != nullptr; }
        ItemFifo::Slot* Slot() const noexcept { return m_segment->slots + CountIn(m_mark); }

      private:
        friend ItemFifo;
        PopPlace(Segment* segment, Mark mark) noexcept : m_segment(segment), m_mark(mark) {}

        Segment* m_segment = nullptr;
        Mark m_mark = 0;
    };

    ItemFifo() noexcept;
    ItemFifo(const ItemFifo&) = delete;
    ItemFifo& operator=(const ItemFifo&) = delete;
    // Everything has been popped.
    ~ItemFifo();

    // Before all else. False without memory.
    [[nodiscard]] bool Begin() noexcept;

    // The next place in the order; from then on the item counts as pushed. Without a slot where there is no
    // memory.
    [[nodiscard]] PushPlace BeginPush() noexcept;
    // The same without a slot too where the last segment is full.
    [[nodiscard]] PushPlace TryBeginPush() noexcept {
        Segment* const segment = m_last.load(std::memory_order_acquire);
        const Mark mark = segment->tickets.fetch_add(1);
        if (CountIn(mark) >= Segment::SlotCount) [[unlikely]]
            return {};
        return {segment->slots + CountIn(mark), LapIn(mark)};
    }
    // The slot is filled.
    static void EndPush(PushPlace place) noexcept {
        place.slot->lap.store(place.lap, std::memory_order_release);
    }

    // None where there is no item. From then on it counts as popped.
    [[nodiscard]] PopPlace BeginPop() noexcept {
        PopPlace place;
        while (!(place = TryBeginPop()))
            if (!FindTicket()) return {};
        AwaitPush(place);
        return place;
    }
    // The same, and none too where somebody else was faster, or has to look for tickets first. The slot may
    // still be about to be filled.
    [[nodiscard]] PopPlace TryBeginPop() noexcept {
        Segment* const segment = m_first.load(std::memory_order_acquire);
        Mark mark = segment->taken.load();
        // What was read is of the first segment, or of an earlier use of it: then it does not stay so.
        if (m_first.load() != segment || mark >= segment->known.load(std::memory_order_relaxed) ||
            !segment->taken.compare_exchange_strong(mark, mark + 1)) [[unlikely]]
            return {};
        return {segment, mark};
    }
    [[nodiscard]] static bool IsFilled(PopPlace place) noexcept {
        return place.Slot()->lap.load(std::memory_order_acquire) == LapIn(place.m_mark);
    }
    // Waits until it is.
    static void AwaitPush(PopPlace place) noexcept;
    // The slot is needed no longer.
    void EndPop(PopPlace place) noexcept {
        if (Leave(place)) [[unlikely]]
            GiveBack(place);
    }
    // In two steps: whether it was the last one of its segment, which has to be given back then.
    [[nodiscard]] static bool Leave(PopPlace place) noexcept { return Leave(place.m_segment); }
    void GiveBack(PopPlace place) noexcept { GiveBack(place.m_segment); }

    void PushStop() noexcept { m_stops.fetch_add(1); }
    // False where there is none.
    bool PopStop() noexcept;
    [[nodiscard]] DWORD Stops() const noexcept { return m_stops.load(); }

    // Whether there was a moment without an item and a stop.
    [[nodiscard]] bool IsEmpty() const noexcept;
    // All items that were pushed, and that were popped, since the queue was made.
    [[nodiscard]] ULONGLONG Pushed() const noexcept;
    [[nodiscard]] ULONGLONG Popped() const noexcept;

  private:
    using Lock = Platform::ObjectLock<Platform::ShortLock>;

    static constexpr Mark MarkOf(DWORD lap, DWORD count) noexcept { return Mark{lap} << 32 | count; }
    static constexpr DWORD LapIn(Mark mark) noexcept { return static_cast<DWORD>(mark >> 32); }
    static constexpr DWORD CountIn(Mark mark) noexcept { return static_cast<DWORD>(mark); }
    // How many tickets were given.
    static constexpr DWORD GivenIn(Mark mark) noexcept {
        if (mark & Closed) return 0;
        return CountIn(mark) < Segment::SlotCount ? CountIn(mark) : Segment::SlotCount;
    }

    static constexpr ULONGLONG NumberOf(Mark mark, DWORD count) noexcept {
        return ULONGLONG{LapIn(mark) - FirstLap} * Segment::SlotCount + count;
    }

    bool Append(Segment* full) noexcept;
    bool FindTicket() noexcept;
    void LeaveFirst(Segment* segment, Mark mark) noexcept;
    [[nodiscard]] static bool Leave(Segment* segment) noexcept {
        return segment->left.fetch_add(1) == Segment::SlotCount;
    }

    [[nodiscard]] Segment* NewSegment() noexcept;
    void GiveBack(Segment* segment) noexcept;
    [[nodiscard]] static bool GetSlots(Segment& segment) noexcept;
    static void Delete(Segment* segment) noexcept;

    alignas(128) std::atomic<Segment*> m_last = nullptr;
    alignas(128) std::atomic<Segment*> m_first = nullptr;
    alignas(128) std::atomic<DWORD> m_stops = 0;

    Lock m_lastLock, m_firstLock;  // for changing them
    Lock m_freeLock;
    Segment* m_free TQ_GUARDED_BY(m_freeLock) = nullptr;      // with slots
    Segment* m_slotless TQ_GUARDED_BY(m_freeLock) = nullptr;  // without
    DWORD m_freeCount TQ_GUARDED_BY(m_freeLock) = 0;
};

}  // namespace Quellan::Corvel
