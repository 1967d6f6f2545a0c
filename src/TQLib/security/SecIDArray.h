// Sequences of security identifiers.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecID.h"

#include <compare>
#include <cstddef>
#include <initializer_list>
#include <vector>

namespace Quellan::Sarvek {

// An ordered sequence with value semantics, of `SecID`, `SecIDAttr` or `SecACE`.
//
// Failures: exhausted memory throws 14 (ERROR_OUTOFMEMORY), a position outside of the array 1413
// (ERROR_INVALID_INDEX); the array is unchanged then.
//
// Threads: as the elements; an array whose elements are asked for their accounts belongs to one thread.
template <class T>
class _SecArray {
  private:
    using InternalArray = std::vector<T>;

  public:
    using value_type = T;
    using const_iterator = typename InternalArray::const_iterator;

    _SecArray() noexcept;
    _SecArray(std::initializer_list<T> elements);
    _SecArray(const _SecArray& other);
    _SecArray(_SecArray&& other) noexcept;
    _SecArray& operator=(const _SecArray& other);
    _SecArray& operator=(_SecArray&& other) noexcept;
    virtual ~_SecArray();

    [[nodiscard]] std::size_t Count() const noexcept;
    [[nodiscard]] bool IsEmpty() const noexcept;
    // The element at `position`, which must be below `Count()`. Valid until the array changes.
    const T& operator[](std::size_t position) const;
    [[nodiscard]] bool Contains(const T& element) const noexcept;

    void Add(T element);
    void Clear() noexcept;

    // Iterators are valid until the array changes.
    const_iterator begin() const noexcept;
    const_iterator end() const noexcept;

    friend bool operator==(const _SecArray& left, const _SecArray& right) noexcept {
        return left.m_items == right.m_items;
    }
    friend std::strong_ordering operator<=>(const _SecArray& left, const _SecArray& right) noexcept {
        return left.m_items <=> right.m_items;
    }

  private:
    InternalArray m_items;
};

extern template class TQLIB_API _SecArray<SecID>;

// A sequence of identifiers.
class TQLIB_API SecIDArray : public _SecArray<SecID> {
  public:
    using _SecArray::_SecArray;
    SecIDArray() noexcept;
    SecIDArray(const SecIDArray& other);
    SecIDArray(SecIDArray&& other) noexcept;
    SecIDArray& operator=(const SecIDArray& other);
    SecIDArray& operator=(SecIDArray&& other) noexcept;
    ~SecIDArray() override;

    // The lowest and the highest integrity level among those that the identifiers have by default
    // (`SecID::SystemLabelRID`); 0xFFFFFFFF and 0 for an empty array.
    [[nodiscard]] DWORD LowestIDLabelRID(bool ignoreAdmins = false) const noexcept;
    [[nodiscard]] DWORD HighestIDLabelRID(bool ignoreAdmins = false) const noexcept;
};

}  // namespace Quellan::Sarvek
