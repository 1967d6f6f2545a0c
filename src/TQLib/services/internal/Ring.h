// A queue in one block of memory.
#pragma once

#include "TQLib/text/memory/TQStdExceptions.h"

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace Quellan::Corvel {

// First in, first out. Memory grows by doubling and is kept for the next elements, up to a limit once the
// queue runs empty: a queue that stays short allocates nothing. Belongs to one thread at a time.
template <class T>
class Ring {
  public:
    bool IsEmpty() const noexcept { return m_size == 0; }
    // From the front.
    T& operator[](std::size_t index) noexcept { return m_slots[(m_head + index) & (m_capacity - 1)]; }

    // Makes room for one more element, so that the next `Push` can't fail. Throws 14 (ERROR_OUTOFMEMORY).
    void ReserveOne() {
        if (m_size < m_capacity) return;
        const std::size_t capacity = m_capacity ? 2 * m_capacity : FirstCapacity;
        std::unique_ptr<T[]> slots(new (std::nothrow) T[capacity]());
        if (!slots) TQStdExceptions::ThrowMemAllocError(L"Ring::ReserveOne");
        for (std::size_t i = 0; i < m_size; ++i)
            slots[i] = std::move((*this)[i]);
        m_slots = std::move(slots);
        m_capacity = capacity;
        m_head = 0;
    }
    // Only after room was made.
    void Push(T element) noexcept { (*this)[m_size++] = std::move(element); }
    // Only where there is an element.
    T Pop() noexcept {
        T front = std::move((*this)[0]);
        m_head = (m_head + 1) & (m_capacity - 1);
        if (--m_size == 0) Trim();
        return front;
    }

  private:
    static constexpr std::size_t FirstCapacity = 8;
    static constexpr std::size_t KeptCapacity = 4096;  // of an empty queue

    void Trim() noexcept {
        if (m_capacity <= KeptCapacity) return;
        m_slots.reset();
        m_capacity = 0;
        m_head = 0;
    }

    std::unique_ptr<T[]> m_slots;
    std::size_t m_capacity = 0;  // a power of two, or 0
    std::size_t m_head = 0;
    std::size_t m_size = 0;
};

}  // namespace Quellan::Corvel
