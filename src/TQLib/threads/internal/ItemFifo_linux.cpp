#include "TQLib/threads/internal/ItemFifo_linux.h"

#include "TQLib/platform/linux/base/FaultPoint.h"

#include <cstring>
#include <new>
#include <sys/mman.h>
#include <utility>

namespace Quellan::Corvel {

using Platform::Guard;

struct ItemFifo::Segment {
    static constexpr std::size_t Bytes = 64 * 1024;
    static constexpr DWORD SlotCount = Bytes / sizeof(Slot) - 1;
    static constexpr DWORD MostKept = 256;  // 16 MB of each queue

    alignas(sizeof(Slot)) Segment* next = nullptr;  // in the queue or among the free ones
    Slot slots[SlotCount];
};

ItemFifo::~ItemFifo() TQ_NOT_ANALYSED {
    for (PoolPort::Packet packet; Pop(packet);)
        packet.Free();
    if (m_first) Delete(m_first);
    while (m_free)
        Delete(std::exchange(m_free, m_free->next));
}

bool ItemFifo::Begin() noexcept TQ_NOT_ANALYSED {
    m_first = m_last = NewSegment();
    return m_first;
}

// What a slot holds is left as it is: the system's memory is zero, and each slot is written before it is read.
ItemFifo::Segment* ItemFifo::NewSegment() noexcept {
    static_assert(sizeof(Segment) == Segment::Bytes);
    {
        const Guard lock(m_freeLock);
        if (m_free) {
            --m_freeCount;
            return std::exchange(m_free, m_free->next);
        }
    }
    if (Platform::FaultDue("mmap")) return nullptr;
    void* const memory =
        mmap(nullptr, sizeof(Segment), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return memory != MAP_FAILED ? static_cast<Segment*>(memory) : nullptr;
}

void ItemFifo::GiveBack(Segment* segment) noexcept {
    {
        const Guard lock(m_freeLock);
        if (m_freeCount < Segment::MostKept) {
            ++m_freeCount;
            segment->next = std::exchange(m_free, segment);
            return;
        }
    }
    Delete(segment);
}

void ItemFifo::Delete(Segment* segment) noexcept {
    munmap(segment, sizeof *segment);
}

bool ItemFifo::Push(PoolPort::Kind kind, const ItemTag& tag, DWORD size, const void* data,
                    PoolPort::Record* holder) noexcept {
    Platform::TellReleased(this);
    Segment* fresh = nullptr;
    for (;;) {
        {
            const Guard lock(m_pushLock);
            if (m_pushIndex == Segment::SlotCount && fresh) [[unlikely]] {
                m_last = m_last->next = std::exchange(fresh, nullptr);
                m_pushIndex = 0;
            }
            if (m_pushIndex != Segment::SlotCount) [[likely]] {
                Slot& slot = m_last->slots[m_pushIndex++];
                slot.tag = tag;
                slot.size = size;
                slot.kind = kind;
                if (holder)
                    slot.holder = holder;
                else if (size != 0)
                    std::memcpy(slot.data, data, size);
                // Before whatever the pusher looks at afterwards: who goes to sleep later sees the item.
                m_pushed.store(m_pushed.load(std::memory_order_relaxed) + 1);
                break;
            }
        }
        if (!(fresh = NewSegment())) return false;
    }
    if (fresh) [[unlikely]]
        GiveBack(fresh);
    return true;
}

bool ItemFifo::Pop(PoolPort::Packet& packet) noexcept {
    if (IsEmpty()) return false;
    Segment* drained = nullptr;
    {
        const Guard lock(m_popLock);
        const ULONGLONG popped = m_popped.load(std::memory_order_relaxed);
        if (popped == m_pushed.load()) return false;
        if (m_popIndex == Segment::SlotCount) [[unlikely]] {
            drained = std::exchange(m_first, m_first->next);
            m_popIndex = 0;
        }
        const Slot& slot = m_first->slots[m_popIndex++];
        packet.tag = slot.tag;
        packet.size = slot.size;
        packet.kind = slot.kind;
        if (slot.size > sizeof slot.data)
            packet.holder = slot.holder;
        else
            std::memcpy(packet.data, slot.data, sizeof slot.data);
        Compiler::PrefetchToRead(&slot + 1);  // for who pops it next
        m_popped.store(popped + 1, std::memory_order_release);
    }
    Platform::TellAcquired(this);
    if (drained) [[unlikely]]
        GiveBack(drained);
    return true;
}

}  // namespace Quellan::Corvel
