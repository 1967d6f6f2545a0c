// The items of a pool in memory.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/threads/internal/PoolPort.h"

#include <atomic>

namespace Quellan::Corvel {

// First in, first out. Each item lies in a slot of its own, with its data where these are short; slots stand
// in segments that come from the system and go back to it, but for those that are kept for the next items.
// Who pushes has the lock of the one end, who pops that of the other: what lies between them is told by two
// counters. For several threads.
class ItemFifo {
  public:
    ItemFifo() noexcept = default;
    ItemFifo(const ItemFifo&) = delete;
    ItemFifo& operator=(const ItemFifo&) = delete;
    ~ItemFifo();

    // Before all else. False without memory.
    [[nodiscard]] bool Begin() noexcept;

    // Whether all that was pushed before has been popped.
    [[nodiscard]] bool IsEmpty() const noexcept {
        const ULONGLONG popped = m_popped.load();
        return m_pushed.load() == popped;
    }

    // With its data in `data` or, where they are longer than a slot's, in `holder`. False without memory, with
    // nothing changed.
    [[nodiscard]] bool Push(PoolPort::Kind kind, const ItemTag& tag, DWORD size, const void* data,
                            PoolPort::Record* holder) noexcept;
    // False where there is nothing.
    [[nodiscard]] bool Pop(PoolPort::Packet& packet) noexcept;

  private:
    using Lock = Platform::ObjectLock<Platform::ShortLock>;

    struct alignas(64) Slot {
        ItemTag tag;
        DWORD size;
        PoolPort::Kind kind;
        union {
            BYTE data[PoolPort::Packet::InlineBytes];
            PoolPort::Record* holder;
        };
    };
    static_assert(sizeof(Slot) == 128);

    struct Segment;

    [[nodiscard]] Segment* NewSegment() noexcept;
    void GiveBack(Segment* segment) noexcept;
    static void Delete(Segment* segment) noexcept;

    alignas(128) Lock m_pushLock;
    DWORD m_pushIndex TQ_GUARDED_BY(m_pushLock) = 0;
    Segment* m_last TQ_GUARDED_BY(m_pushLock) = nullptr;
    std::atomic<ULONGLONG> m_pushed = 0;

    alignas(128) Lock m_popLock;
    DWORD m_popIndex TQ_GUARDED_BY(m_popLock) = 0;
    Segment* m_first TQ_GUARDED_BY(m_popLock) = nullptr;
    std::atomic<ULONGLONG> m_popped = 0;

    alignas(128) Lock m_freeLock;
    Segment* m_free TQ_GUARDED_BY(m_freeLock) = nullptr;
    DWORD m_freeCount TQ_GUARDED_BY(m_freeLock) = 0;
};

}  // namespace Quellan::Corvel
