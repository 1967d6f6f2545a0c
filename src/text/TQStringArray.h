// Ordered sequences of strings.
#pragma once

#include <compare>
#include <cstddef>
#include <initializer_list>
#include <vector>

#include "platform/Types.h"
#include "text/TQString.h"

namespace Quellan::Corvel {

// An ordered sequence of wide strings, with value semantics. Positions count from 0.
//
// Failures: exhausted memory throws by `TQStdExceptions::ThrowMemAllocError`, a position outside of the array by
// `ThrowIndexError`; the array is unchanged then.
//
// Threads: different arrays at will; one array from several threads as long as none changes it.
class TQLIB_API TQStringArray {
  public:
    // What `Find` returns for "not found".
    static constexpr std::size_t NotFound = static_cast<std::size_t>(-1);

    TQStringArray() noexcept;
    TQStringArray(std::initializer_list<TQString> texts);
    TQStringArray(const TQStringArray& other);
    TQStringArray(TQStringArray&& other) noexcept;
    TQStringArray& operator=(const TQStringArray& other);
    TQStringArray& operator=(TQStringArray&& other) noexcept;
    ~TQStringArray();

    std::size_t Count() const noexcept;
    bool IsEmpty() const noexcept;
    // The string at `position`, which must be below `Count()`.
    TQString& At(std::size_t position);
    const TQString& At(std::size_t position) const;
    TQString& operator[](std::size_t position);
    const TQString& operator[](std::size_t position) const;

    void Add(const TQString& text);
    void Add(const TQStringArray& other);
    // Before the string at `position`, which is at most `Count()`.
    void Insert(std::size_t position, const TQString& text);
    // Removes `count` strings from `position` on; all of them must be there.
    void Remove(std::size_t position, std::size_t count = 1);
    void Clear() noexcept;

    // The position of the first string at or behind `from` that equals `text`, with or without regard to case.
    std::size_t Find(const TQString& text, std::size_t from = 0) const noexcept;
    std::size_t FindNoCase(const TQString& text, std::size_t from = 0) const;
    // Sorts by the values of the characters, or without regard to case; equal strings keep their order.
    void Sort();
    void SortNoCase();

    // All strings with `separator` between them.
    TQString Join(const TQString& separator) const;
    // The parts of `text` between the characters of `separators`, empty parts included: always one more than there are
    // separators in the text.
    static TQStringArray Split(const TQString& text, const TQString& separators);

    const TQString* begin() const noexcept;
    const TQString* end() const noexcept;

    bool operator==(const TQStringArray& other) const noexcept;
    std::strong_ordering operator<=>(const TQStringArray& other) const noexcept;

  private:
    using InternalArray = std::vector<TQString>;

    InternalArray m_texts;
};

}  // namespace Quellan::Corvel
