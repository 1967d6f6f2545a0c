// Text that is made, used and forgotten.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// Grows as a string does, but its first N characters lie in the object itself, where usual texts need no
// memory. May throw std::bad_alloc, unchanged.
template <class C, std::size_t N>
class ScratchText {
  public:
    ScratchText() noexcept = default;
    ScratchText(const ScratchText&) = delete;
    ScratchText& operator=(const ScratchText&) = delete;

    std::basic_string_view<C> View() const noexcept { return {m_text, m_size}; }
    std::size_t Size() const noexcept { return m_size; }

    // Room for `count` characters behind the text; `Commit` makes so many of them part of it.
    C* Room(std::size_t count) {
        if (count > m_capacity - m_size) Grow(count);
        return m_text + m_size;
    }
    // As far as there is room already.
    std::size_t RoomLeft() const noexcept { return m_capacity - m_size; }
    void Commit(std::size_t count) noexcept { m_size += count; }
    void TakeBack(std::size_t count) noexcept { m_size -= count; }

    void Append(std::basic_string_view<C> text) {
        std::char_traits<C>::copy(Room(text.size()), text.data(), text.size());
        Commit(text.size());
    }

  private:
    void Grow(std::size_t count) {
        const std::size_t capacity = std::max(m_capacity * 2, m_size + count);
        std::unique_ptr<C[]> larger(new C[capacity]);
        std::char_traits<C>::copy(larger.get(), m_text, m_size);
        m_large = std::move(larger);
        m_text = m_large.get();
        m_capacity = capacity;
    }

    C m_small[N];
    std::unique_ptr<C[]> m_large;
    C* m_text = m_small;
    std::size_t m_size = 0;
    std::size_t m_capacity = N;
};

}  // namespace Quellan::Corvel
