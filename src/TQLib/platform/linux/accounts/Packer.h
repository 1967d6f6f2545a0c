// Answers of several structures with the texts and identifiers they point to, in one block.
#pragma once

#include "TQLib/platform/linux/accounts/SidValue.h"

#include <type_traits>

namespace Quellan::Platform {

// Places things one after the other. Without memory it only counts, so that one function fills a block of the
// size it has found out before: `Fill(packer)` is called twice and must place the same things in the same
// order. Everything is placed as far as there is no memory, at null.
class Packer {
  public:
    explicit Packer(void* memory = nullptr) noexcept : m_memory(static_cast<std::byte*>(memory)) {}

    std::size_t Size() const noexcept { return m_size; }

    // Zeroed.
    template <class T>
    T* Array(std::size_t count) noexcept {
        static_assert(std::is_trivially_copyable_v<T>);
        m_size = (m_size + alignof(T) - 1) / alignof(T) * alignof(T);
        void* const place = Take(count * sizeof(T));
        if (place && count != 0) std::memset(place, 0, count * sizeof(T));
        return static_cast<T*>(place);
    }

    wchar_t* Text(std::wstring_view text) noexcept {
        wchar_t* const place = Array<wchar_t>(text.size() + 1);
        if (place) text.copy(place, text.size());
        return place;
    }

    PSID Sid(const SidValue& sid) noexcept {
        DWORD* const place = Array<DWORD>(sid.Length() / sizeof(DWORD));
        if (place) std::memcpy(place, &sid, sid.Length());
        return place;
    }

  private:
    void* Take(std::size_t size) noexcept {
        void* const place = m_memory ? m_memory + m_size : nullptr;
        m_size += size;
        return place;
    }

    std::byte* const m_memory;
    std::size_t m_size = 0;
};

}  // namespace Quellan::Platform
