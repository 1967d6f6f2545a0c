// The packets of a completion port: a queue whose memory grows and shrinks in blocks, so that neither a
// packet nor a long queue costs an allocation or a copy while the port is locked.
#pragma once

#include "TQLib/platform/linux/objects/CompletionPorts.h"

#include <array>
#include <memory>
#include <utility>

namespace Quellan::Platform {

struct Packet {
    ULONG_PTR key;
    OVERLAPPED* overlapped;
    DWORD bytes;
};

// First in, first out. Guarded by its owner.
class PacketQueue {
  public:
    // Memory for some packets.
    struct Block {
        static constexpr std::size_t Size = 256;

        std::unique_ptr<Block> next;
        std::array<Packet, Size> packets;
    };
    using BlockPtr = std::unique_ptr<Block>;

    // May throw std::bad_alloc.
    PacketQueue() : m_first(std::make_unique_for_overwrite<Block>()), m_last(m_first.get()) {}
    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;
    ~PacketQueue() { Clear(); }

    bool IsEmpty() const noexcept { return m_read == m_write && m_first.get() == m_last; }

    // False, with the packet not queued, when that takes a block and `block` is empty.
    bool Push(const Packet& packet, BlockPtr& block) noexcept {
        if (m_write == Block::Size) {
            BlockPtr& source = m_spare ? m_spare : block;
            if (!source) return false;
            m_last->next = std::move(source);
            m_last = m_last->next.get();
            m_write = 0;
        }
        m_last->packets[m_write++] = packet;
        return true;
    }

    // Only when not empty. `drained` receives a block that is needed no longer; it was empty before.
    Packet Pop(BlockPtr& drained) noexcept {
        const Packet packet = m_first->packets[m_read++];
        if (IsEmpty()) {
            m_read = m_write = 0;  // the same memory again, which is in the caches
        } else if (m_read == Block::Size) {
            BlockPtr next = std::move(m_first->next);
            (m_spare ? drained : m_spare) = std::exchange(m_first, std::move(next));
            m_read = 0;
        }
        if (!IsEmpty())
            Compiler::PrefetchToRead(m_first->packets[m_read].overlapped);  // for who takes it next
        return packet;
    }

    // Gives all memory back; nothing can be queued afterwards.
    void Clear() noexcept {
        while (m_first)
            m_first = std::move(m_first->next);  // one by one: a long chain would end in deep recursion
        m_spare.reset();
        m_last = nullptr;
        m_read = m_write = 0;
    }

  private:
    BlockPtr m_first;
    Block* m_last;
    std::size_t m_read = 0;   // in the first block
    std::size_t m_write = 0;  // in the last one
    BlockPtr m_spare;
};

}  // namespace Quellan::Platform
