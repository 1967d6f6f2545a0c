// Text in pieces and pieces in a text. Splitting takes no memory: the pieces are views, made one by one while they are
// asked for.
//
//     for (const std::wstring_view word : TQSplitAt(line, L' ', {.skipEmpty = true})) ...
//     const TQStringArray names(TQSplitAtAny(line, L",;"));
//
// A text has one piece more than separators, the empty text none. The text must outlive the pieces, which is why a
// string that ends with the statement is refused by the compiler; a set or a text as separator must outlive them too.
#pragma once

#include "TQLib/text/TQString.h"
#include "TQLib/text/internal/CharacterSet.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <concepts>
#include <cstddef>
#include <iterator>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

struct TQSplitOptions {
    // At most so many pieces: the last one is then all that is left, with its separators.
    std::size_t limit = std::wstring_view::npos;
    // Pieces without characters are left out, and not counted.
    bool skipEmpty = false;
};

template <class C>
struct _TQAtCharacter {
    C character;

    [[nodiscard]] std::size_t Find(std::basic_string_view<C> text) const noexcept {
        return text.find(character);
    }
    [[nodiscard]] std::size_t Length() const noexcept { return 1; }
};

template <class C>
struct _TQAtAny {
    _TQCharacterSet<C> set;

    [[nodiscard]] std::size_t Find(std::basic_string_view<C> text) const noexcept { return set.Find(text); }
    [[nodiscard]] std::size_t Length() const noexcept { return 1; }
};

// The empty separator is nowhere.
template <class C>
struct _TQAtText {
    std::basic_string_view<C> separator;

    [[nodiscard]] std::size_t Find(std::basic_string_view<C> text) const noexcept {
        return separator.empty() ? text.npos : text.find(separator);
    }
    [[nodiscard]] std::size_t Length() const noexcept { return separator.size(); }
};

// The pieces of a text, a forward range. Its iterators are valid as long as it.
template <class C, class Separator>
class _TQPieces : public std::ranges::view_base {
  public:
    class Iterator {
      public:
        using value_type = std::basic_string_view<C>;
        using difference_type = std::ptrdiff_t;
        using iterator_concept = std::forward_iterator_tag;

        Iterator() = default;

        value_type operator*() const noexcept { return m_piece; }
        Iterator& operator++() noexcept {
            Advance();
            return *this;
        }
        Iterator operator++(int) noexcept {
            Iterator before = *this;
            Advance();
            return before;
        }
        bool operator==(const Iterator& other) const noexcept {
            return m_isEnd == other.m_isEnd && (m_isEnd || m_piece.data() == other.m_piece.data());
        }
        bool operator==(std::default_sentinel_t) const noexcept { return m_isEnd; }

      private:
        friend _TQPieces;
        explicit Iterator(const _TQPieces& pieces) noexcept
            : m_pieces(&pieces),
              m_rest(pieces.m_text),
              m_left(pieces.m_options.limit),
              m_hasMore(!m_rest.empty() && m_left != 0) {
            Advance();
        }

        void Advance() noexcept {
            const Separator& separator = m_pieces->m_separator;
            const bool skipEmpty = m_pieces->m_options.skipEmpty;
            while (m_hasMore) {
                const std::size_t end = separator.Find(m_rest);
                const bool isSkipped = skipEmpty && (end == 0 || m_rest.empty());
                m_hasMore = end != m_rest.npos && (isSkipped || m_left > 1);
                m_piece = m_left > 1 || isSkipped ? m_rest.substr(0, end) : m_rest;
                if (m_hasMore) m_rest.remove_prefix(end + separator.Length());
                if (isSkipped) continue;
                --m_left;
                return;
            }
            m_isEnd = true;
        }

        const _TQPieces* m_pieces = nullptr;
        std::basic_string_view<C> m_rest;
        std::basic_string_view<C> m_piece;
        std::size_t m_left = 0;
        bool m_hasMore = false;
        bool m_isEnd = false;
    };

    _TQPieces(std::basic_string_view<C> text, Separator separator, TQSplitOptions options) noexcept
        : m_text(text), m_separator(separator), m_options(options) {}

    [[nodiscard]] Iterator begin() const noexcept { return Iterator(*this); }
    [[nodiscard]] std::default_sentinel_t end() const noexcept { return {}; }

  private:
    std::basic_string_view<C> m_text;
    Separator m_separator;
    TQSplitOptions m_options;
};

template <class T>
concept _TQWideText = std::is_convertible_v<const T&, _TQTextT<wchar_t>>;
template <class T>
concept _TQNarrowText = std::is_convertible_v<const T&, _TQTextT<char>>;
template <class T>
using _TQCharacterOf = std::conditional_t<_TQWideText<std::remove_cvref_t<T>>, wchar_t, char>;
template <class T, class C = _TQCharacterOf<T>>
concept _TQOwnsText = std::is_base_of_v<_TQStringT<C>, std::remove_cvref_t<T>> ||
    std::is_same_v<std::basic_string<C>, std::remove_cvref_t<T>>;
template <class T>
concept _TQLastingText = (_TQWideText<std::remove_reference_t<T>> ||
                          _TQNarrowText<std::remove_reference_t<T>>)&&(std::is_lvalue_reference_v<T> ||
                                                                       !_TQOwnsText<T>);

// The pieces between occurrences of a character, of any character of a set, of a text.
template <_TQLastingText T, class C = _TQCharacterOf<T>>
[[nodiscard]] auto TQSplitAt(T&& text, std::type_identity_t<C> separator,
                             TQSplitOptions options = {}) noexcept {
    return _TQPieces(_TQTextT<C>(text).View(), _TQAtCharacter<C>{separator}, options);
}
template <_TQLastingText T, class C = _TQCharacterOf<T>>
[[nodiscard]] auto TQSplitAt(T&& text, std::type_identity_t<_TQTextT<C>> separator,
                             TQSplitOptions options = {}) noexcept {
    return _TQPieces(_TQTextT<C>(text).View(), _TQAtText<C>{separator.View()}, options);
}
template <_TQLastingText T, class C = _TQCharacterOf<T>>
[[nodiscard]] auto TQSplitAtAny(T&& text, std::type_identity_t<_TQTextT<C>> separators,
                                TQSplitOptions options = {}) noexcept {
    return _TQPieces(_TQTextT<C>(text).View(), _TQAtAny<C>{_TQCharacterSet<C>(separators.View())}, options);
}

// A range whose elements are texts of this width.
template <class R, class C>
concept _TQTexts =
    std::ranges::input_range<R> && std::is_convertible_v<std::ranges::range_reference_t<R>, _TQTextT<C>>;

// The texts of `texts` in their order with `separator` between each two. Fails as the strings do.
template <class R, class C = _TQCharacterOf<std::ranges::range_reference_t<R>>>
requires _TQTexts<R, C>
[[nodiscard]] _TQStringT<C> TQJoin(R&& texts, std::type_identity_t<_TQTextT<C>> separator) {
    const std::basic_string_view<C> between = separator.View();
    std::basic_string<C> joined;
    Translated(L"TQJoin", [&] {
        bool isFirst = true;
        if constexpr (std::ranges::forward_range<R>) {
            std::size_t length = 0;
            for (auto&& text : texts)
                length += _TQTextT<C>(text).View().size() + between.size();
            joined.resize(length);
            std::span<C> rest(joined);
            const auto put = [&](std::basic_string_view<C> text) {
                // A range that has grown meanwhile.
                if (text.size() > rest.size()) TQStdExceptions::ThrowOverflowError(L"TQJoin");
                text.copy(rest.data(), text.size());
                rest = rest.subspan(text.size());
            };
            for (auto&& text : texts) {
                if (!isFirst) put(between);
                put(_TQTextT<C>(text).View());
                isFirst = false;
            }
            joined.resize(length - rest.size());
        } else {
            for (auto&& text : texts) {
                if (!isFirst) joined += between;
                joined += _TQTextT<C>(text).View();
                isFirst = false;
            }
        }
    });
    return joined;
}

}  // namespace Quellan::Corvel
