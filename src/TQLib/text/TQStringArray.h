#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQSplit.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/internal/Array.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <ranges>
#include <type_traits>
#include <vector>

namespace Quellan::Corvel {

// An ordered sequence of strings with value semantics; fails as `_TQArray` does, and as the strings.
class TQLIB_API TQStringArray : public _TQArray<TQString> {
  public:
    using _TQArray::_TQArray;
    using iterator = std::vector<TQString>::iterator;

    // The texts of any range of them.
    template <_TQTexts<wchar_t> R>
    requires(!std::derived_from<std::remove_cvref_t<R>, _TQArray>) explicit TQStringArray(R&& texts) {
        if constexpr (std::ranges::sized_range<R>)
            Reserve(static_cast<std::size_t>(std::ranges::size(texts)));
        for (auto&& text : texts)
            Add(TQString(_TQTextT<wchar_t>(text).View()));
    }

    // As the constant forms. Iterators and references are valid until elements come or go.
    using _TQArray::operator[];
    TQString& operator[](std::size_t position) {
        return const_cast<TQString&>(std::as_const(*this)[position]);
    }
    [[nodiscard]] const TQString& At(std::size_t position) const;
    [[nodiscard]] TQString& At(std::size_t position) { return (*this)[position]; }
    using _TQArray::begin;
    using _TQArray::end;
    iterator begin() noexcept { return Items().begin(); }
    iterator end() noexcept { return Items().end(); }

    // Makes room for `count` elements in all, so that up to it only the strings need memory.
    void Reserve(std::size_t count);
    void SetAt(std::size_t position, TQString element);

    // `position` is at most `Count()`.
    void Insert(std::size_t position, TQString element);
    void Remove(std::size_t position);

    // The position of the first such element at or behind `from`, or `TQString::NotFound`.
    [[nodiscard]] std::size_t Find(const TQString& element, std::size_t from = 0) const noexcept;
    [[nodiscard]] std::size_t FindNoCase(const TQString& element, std::size_t from = 0) const;
    // Ascending, as `TQString::Compare` orders.
    void Sort() noexcept;
    // Ascending, as `TQString::CompareNoCase` orders; equal ones keep their order.
    void SortNoCase();
    // By `isBefore`, which takes two strings; equal ones keep their order. What it throws passes through; the elements
    // are all there then, in some order.
    template <std::predicate<const TQString&, const TQString&> IsBefore>
    void Sort(IsBefore isBefore) {
        Translated(L"TQStringArray::Sort", [&] { std::stable_sort(begin(), end(), isBefore); });
    }
    // Removes each element that is equal to one before it; the others keep their order.
    void Unique();
    void UniqueNoCase();

    // The elements in their order with `separator` between each two.
    [[nodiscard]] TQString Join(const TQString& separator) const;
    // The pieces of `text` between its separators, each character of `separators` being one. Neighbouring
    // separators have an empty piece between them; the empty text has no piece.
    [[nodiscard]] static TQStringArray Split(const TQString& text, const TQString& separators);
};

}  // namespace Quellan::Corvel
