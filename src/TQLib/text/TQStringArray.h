#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/internal/Array.h"

#include <cstddef>

namespace Quellan::Corvel {

// An ordered sequence of strings with value semantics; fails as `_TQArray` does, and as the strings.
class TQLIB_API TQStringArray : public _TQArray<TQString> {
  public:
    using _TQArray::_TQArray;

    // As `operator[]`.
    [[nodiscard]] const TQString& At(std::size_t position) const;
    void SetAt(std::size_t position, TQString element);

    // `position` is at most `Count()`.
    void Insert(std::size_t position, TQString element);
    void Remove(std::size_t position);

    // The position of the first such element at or behind `from`, or `TQString::NotFound`.
    [[nodiscard]] std::size_t Find(const TQString& element, std::size_t from = 0) const noexcept;
    [[nodiscard]] std::size_t FindNoCase(const TQString& element, std::size_t from = 0) const;
    // Ascending, as `TQString::Compare` orders.
    void Sort() noexcept;

    // The elements in their order with `separator` between each two.
    [[nodiscard]] TQString Join(const TQString& separator) const;
    // The pieces of `text` between its separators, each character of `separators` being one. Neighbouring
    // separators have an empty piece between them; the empty text has no piece.
    [[nodiscard]] static TQStringArray Split(const TQString& text, const TQString& separators);
};

}  // namespace Quellan::Corvel
