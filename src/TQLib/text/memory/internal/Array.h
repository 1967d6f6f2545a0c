// What the library's array classes have in common.
#pragma once

#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <compare>
#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <utility>
#include <vector>

namespace Quellan::Corvel {

// An ordered sequence with value semantics.
//
// Failures: exhausted memory throws 14 (ERROR_OUTOFMEMORY), more elements than there can be 111
// (ERROR_BUFFER_OVERFLOW), a position outside of the array 1413 (ERROR_INVALID_INDEX); the array is unchanged
// then.
//
// Threads: as the elements; different arrays at will, one array as long as none changes it.
template <class T>
class _TQArray {
  private:
    using InternalArray = std::vector<T>;

  public:
    using value_type = T;
    using const_iterator = typename InternalArray::const_iterator;

    _TQArray() noexcept = default;
    _TQArray(std::initializer_list<T> elements)
        : m_items(Translated(L"_TQArray::_TQArray", [&] { return InternalArray(elements); })) {}
    _TQArray(const _TQArray& other)
        : m_items(Translated(L"_TQArray::_TQArray", [&] { return other.m_items; })) {}
    _TQArray(_TQArray&& other) noexcept = default;
    // By a copy: the vector's own assignment may fail half-way.
    _TQArray& operator=(const _TQArray& other) { return *this = _TQArray(other); }
    _TQArray& operator=(_TQArray&& other) noexcept = default;
    virtual ~_TQArray() = default;

    [[nodiscard]] std::size_t Count() const noexcept { return m_items.size(); }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_items.empty(); }
    // The element at `position`, which must be below `Count()`. Valid until the array changes.
    const T& operator[](std::size_t position) const {
        if (position >= Count()) TQStdExceptions::ThrowIndexError(L"_TQArray::operator[]");
        return m_items[position];
    }
    [[nodiscard]] bool Contains(const T& element) const noexcept {
        for (const T& item : m_items)
            if (item == element) return true;
        return false;
    }

    void Add(T element) {
        Translated(L"_TQArray::Add", [&] { m_items.push_back(std::move(element)); });
    }
    void Clear() noexcept { m_items.clear(); }

    // Iterators are valid until the array changes.
    const_iterator begin() const noexcept { return m_items.begin(); }
    const_iterator end() const noexcept { return m_items.end(); }

    friend bool operator==(const _TQArray& left, const _TQArray& right) noexcept {
        return left.m_items == right.m_items;
    }
    friend std::strong_ordering operator<=>(const _TQArray& left, const _TQArray& right) noexcept {
        return left.m_items <=> right.m_items;
    }

  protected:
    // For subclasses that change elements in place.
    [[nodiscard]] InternalArray& Items() noexcept { return m_items; }

  private:
    InternalArray m_items;
};

// The arrays of elements that have a hash.
template <class A>
concept _TQHashedArray = std::derived_from<A, _TQArray<typename A::value_type>> &&
    std::default_initializable<std::hash<typename A::value_type>>;

}  // namespace Quellan::Corvel

template <Quellan::Corvel::_TQHashedArray A>
struct std::hash<A> {
    std::size_t operator()(const A& array) const noexcept {
        std::size_t all = array.Count();
        for (const auto& element : array)
            all = all * 31 + std::hash<typename A::value_type>{}(element);
        return all;
    }
};
