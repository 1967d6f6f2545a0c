#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

#include <compare>
#include <cstddef>
#include <initializer_list>
#include <vector>

namespace Quellan::Corvel {

// An ordered sequence of strings with value semantics.
//
// Failures: exhausted memory throws by `TQStdExceptions::ThrowMemAllocError`, more elements or characters
// than there can be by `ThrowOverflowError`, a position outside of the array by `ThrowIndexError`; the array
// is unchanged then.
//
// Threads: different arrays at will; one array from several threads as long as none changes it.
class TQLIB_API TQStringArray {
  private:
    using InternalArray = std::vector<TQString>;

  public:
    using value_type = TQString;
    using const_iterator = InternalArray::const_iterator;

    TQStringArray() noexcept;
    TQStringArray(std::initializer_list<TQString> elements);
    TQStringArray(const TQStringArray& other);
    TQStringArray(TQStringArray&& other) noexcept;
    TQStringArray& operator=(const TQStringArray& other);
    TQStringArray& operator=(TQStringArray&& other) noexcept;
    virtual ~TQStringArray();

    [[nodiscard]] std::size_t Count() const noexcept;
    [[nodiscard]] bool IsEmpty() const noexcept;

    // The element at `position`, which must be below `Count()`. Valid until the array changes.
    [[nodiscard]] const TQString& At(std::size_t position) const;
    const TQString& operator[](std::size_t position) const;
    void SetAt(std::size_t position, TQString element);

    void Add(TQString element);
    // `position` is at most `Count()`.
    void Insert(std::size_t position, TQString element);
    void Remove(std::size_t position);
    void Clear() noexcept;

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

    // Iterators are valid until the array changes.
    const_iterator begin() const noexcept;
    const_iterator end() const noexcept;

    friend bool operator==(const TQStringArray& a, const TQStringArray& b) noexcept {
        return a.m_items == b.m_items;
    }
    friend std::strong_ordering operator<=>(const TQStringArray& a, const TQStringArray& b) noexcept {
        return a.m_items <=> b.m_items;
    }

  private:
    InternalArray m_items;
};

}  // namespace Quellan::Corvel
