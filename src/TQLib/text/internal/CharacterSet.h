#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

// Characters to look for, those of ASCII by a bit each. The text that they come from must outlive the set.
template <class C>
class _TQCharacterSet {
  public:
    explicit constexpr _TQCharacterSet(std::basic_string_view<C> characters) noexcept
        : m_characters(characters) {
        for (const C c : characters) {
            const auto code = static_cast<std::make_unsigned_t<C>>(c);
            if (code < 0x80)
                m_ascii[code / 64] |= std::uint64_t{1} << code % 64;
            else
                m_hasOthers = true;
        }
    }

    [[nodiscard]] constexpr bool Has(C c) const noexcept {
        const auto code = static_cast<std::make_unsigned_t<C>>(c);
        if (code < 0x80) return (m_ascii[code / 64] >> code % 64 & 1) != 0;
        return m_hasOthers && m_characters.find(c) != m_characters.npos;
    }
    // The position of the first character at or behind `from` that is in the set, or is not; npos if there is none.
    [[nodiscard]] constexpr std::size_t Find(std::basic_string_view<C> text, std::size_t from = 0,
                                             bool isIn = true) const noexcept {
        if (isIn && m_characters.size() <= MostSearched) return FindOneByOne(text, from);
        for (std::size_t i = from; i < text.size(); ++i)
            if (Has(text[i]) == isIn) return i;
        return text.npos;
    }

  private:
    // Few characters are faster searched for one after the other, in a piece of the text that grows while there is none.
    static constexpr std::size_t MostSearched = 4;
    static constexpr std::size_t FirstPiece = 32;

    [[nodiscard]] constexpr std::size_t FindOneByOne(std::basic_string_view<C> text,
                                                     std::size_t from) const noexcept {
        for (std::size_t length = FirstPiece; from < text.size(); from += length, length *= 4) {
            std::basic_string_view<C> piece = text.substr(from, length);
            bool isFound = false;
            for (const C c : m_characters) {
                const std::size_t at = piece.find(c);
                if (at == piece.npos) continue;
                piece = piece.substr(0, at);
                isFound = true;
            }
            if (isFound) return from + piece.size();
        }
        return text.npos;
    }

    std::basic_string_view<C> m_characters;
    std::uint64_t m_ascii[2] = {};
    bool m_hasOthers = false;
};

}  // namespace Quellan::Corvel
