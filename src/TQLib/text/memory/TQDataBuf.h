// Typed, growable buffers whose memory can be wiped and locked.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQAllocators.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <algorithm>
#include <compare>
#include <functional>
#include <initializer_list>
#include <memory_resource>
#include <span>
#include <string_view>
#include <type_traits>

namespace Quellan::Corvel {

// What all buffers have in common, in bytes: the memory, its size and its protection. Buffers are values and
// belong to one thread at a time.
class TQLIB_API _TQDataBufRoot {
  public:
    // How the memory of a buffer is protected for as long as the buffer lives.
    enum class _SecureLevel : BYTE {
        Plain,
        // Overwritten with zeros before it is given back, and wherever contents are dropped: by shrinking, by
        // moving to a larger block, by Clear and by the destructor.
        Wipe,
        // Wiped, and kept in memory of its own for secrets, wherever the buffer's comes from: it is never
        // paged out, stands between pages that nobody may touch, and on Linux is in no core dump and all
        // zeros in a forked child. Secrets of up to 2048 bytes share locked pages (128 keys of 32 bytes in
        // one of 4096); docs/secrets.md says how many there can be.
        WipeAndLock
    };

    virtual ~_TQDataBufRoot();

    // The size of the contents in bytes.
    [[nodiscard]] ULONGLONG Bytes() const noexcept { return m_bytes; }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_bytes == 0; }
    [[nodiscard]] _SecureLevel SecureLevel() const noexcept { return m_level; }

    // Empties the buffer and gives its memory back.
    void Clear() noexcept;

    // Whether both hold the same bytes, in a time that depends on their number alone.
    [[nodiscard]] bool EqualsSecret(const _TQDataBufRoot& other) const noexcept;
    [[nodiscard]] static bool EqualsSecret(std::span<const std::byte> left,
                                           std::span<const std::byte> right) noexcept;

  protected:
    _TQDataBufRoot(const TQAllocator& allocator, std::pmr::memory_resource* resource,
                   _SecureLevel level) noexcept;
    _TQDataBufRoot(const _TQDataBufRoot& other);
    _TQDataBufRoot(_TQDataBufRoot&& other) noexcept;
    _TQDataBufRoot& operator=(const _TQDataBufRoot& other);
    _TQDataBufRoot& operator=(_TQDataBufRoot&& other) noexcept(false);
    void Swap(_TQDataBufRoot& other) noexcept;

    [[nodiscard]] BYTE* Block() const noexcept { return m_block; }
    [[nodiscard]] std::size_t BlockSize() const noexcept { return m_capacity; }

    // Puts `added` bytes from `source` (zeros where it is null), which may lie in this buffer, in the place
    // of `removed` bytes at `at`. Throws as the buffer's own members do, with `where`; the buffer is
    // unchanged then.
    void Splice(std::size_t at, std::size_t removed, const void* source, std::size_t added,
                const wchar_t* where);
    void ReserveBytes(std::size_t bytes, const wchar_t* where);

    // The bytes of `count` elements of `elementSize`; throws 111 where no buffer can hold them.
    [[nodiscard]] static std::size_t ByteCount(ULONGLONG count, std::size_t elementSize,
                                               const wchar_t* where);
    // Throws 1413 unless `count` elements from `first` lie within `size`.
    static void CheckRange(ULONGLONG first, ULONGLONG count, ULONGLONG size, const wchar_t* where);
    // Throws 87 for a null `source` of more than nothing.
    static void CheckSource(const void* source, ULONGLONG count, const wchar_t* where);

  private:
    [[nodiscard]] std::size_t Rounded(std::size_t bytes) const noexcept;
    [[nodiscard]] void* Allocate(std::size_t bytes) const noexcept;
    void Release(void* block, std::size_t bytes) const noexcept;
    [[nodiscard]] BYTE* NewBlock(std::size_t capacity, const wchar_t* where) const;
    void ReplaceBlock(BYTE* block, std::size_t capacity) noexcept;

    const TQAllocator* m_allocator;
    std::pmr::memory_resource* m_resource;  // where not null, instead of the allocator
    BYTE* m_block = nullptr;
    std::size_t m_bytes = 0;
    std::size_t m_capacity = 0;
    _SecureLevel m_level;
};

// A growable array of trivially copyable elements. `N` selects the allocator (`TQMemory`); new elements are
// zero.
//
// A buffer may get its memory from a memory resource instead, which must outlive it. Whoever is made by moving
// gets the resource with the memory, and so does whoever swaps; a copy goes by `N`, and what is assigned to
// keeps where its memory comes from.
//
// The secure level is given at construction. A copy has the level of its source; assignment gives the target
// the stricter level of the two, so neither the old contents nor the new ever lose their protection. Moving
// leaves the source empty, with its level. The level is no part of the value: comparison looks at the
// elements; where one of the two has a level, equality takes a time that does not tell where they differ.
//
// Failures: 14 (ERROR_OUTOFMEMORY) where memory is refused, 111 (ERROR_BUFFER_OVERFLOW) for a size beyond
// what an object can have, 1413 (ERROR_INVALID_INDEX) for a position outside, 87 (ERROR_INVALID_PARAMETER)
// for a null source with a count, the platform's code where no page can be locked (1453,
// ERROR_WORKING_SET_QUOTA). The buffer is unchanged after each.
template <class T, unsigned N = TQMemory::Heap>
class TQDataBuf : public _TQDataBufRoot {
    static_assert(std::is_trivially_copyable_v<T>, "elements are moved as bytes");
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__,
                  "buffers align for fundamental types alone: take std::vector for over-aligned elements");

  public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    TQDataBuf() noexcept;
    explicit TQDataBuf(_SecureLevel level) noexcept;
    explicit TQDataBuf(ULONGLONG count, _SecureLevel level = _SecureLevel::Plain);
    TQDataBuf(const T* source, ULONGLONG count, _SecureLevel level = _SecureLevel::Plain);
    explicit TQDataBuf(std::span<const T> source, _SecureLevel level = _SecureLevel::Plain);
    TQDataBuf(std::initializer_list<T> elements, _SecureLevel level = _SecureLevel::Plain);
    explicit TQDataBuf(std::pmr::memory_resource& memory, _SecureLevel level = _SecureLevel::Plain) noexcept;
    TQDataBuf(const TQDataBuf& other);
    TQDataBuf(TQDataBuf&& other) noexcept;
    TQDataBuf& operator=(const TQDataBuf& other);
    // Throws only where the memory of the other can't become this one's: where this buffer is locked and the
    // other isn't, or theirs comes from different resources. The contents are copied then.
    TQDataBuf& operator=(TQDataBuf&& other) noexcept(false);
    ~TQDataBuf() override;

    // The first element; null while the buffer has no memory. Valid until the buffer grows, is cleared or is
    // assigned.
    [[nodiscard]] T* Data() noexcept;
    [[nodiscard]] const T* Data() const noexcept;
    T* begin() noexcept;
    T* end() noexcept;
    const T* begin() const noexcept;
    const T* end() const noexcept;

    // In elements.
    [[nodiscard]] ULONGLONG Size() const noexcept;
    [[nodiscard]] ULONGLONG Capacity() const noexcept;

    // Unchecked.
    T& operator[](ULONGLONG index) noexcept;
    const T& operator[](ULONGLONG index) const noexcept;
    // Throws 1413 for an index outside.
    T& At(ULONGLONG index);
    [[nodiscard]] const T& At(ULONGLONG index) const;

    // Cuts the end off or adds zeros. Memory is kept when the buffer shrinks.
    void Resize(ULONGLONG count);
    // Makes room for `count` elements in all.
    void Reserve(ULONGLONG count);
    // `source` may lie in this buffer, here and below.
    void Assign(const T* source, ULONGLONG count);
    void Assign(std::span<const T> source);
    void Append(const T* source, ULONGLONG count);
    void Append(std::span<const T> source);
    void Append(const TQDataBuf& other);
    void Append(const T& value);
    void Insert(ULONGLONG index, const T* source, ULONGLONG count);
    void Insert(ULONGLONG index, std::span<const T> source);
    void Remove(ULONGLONG index, ULONGLONG count);
    // Sets every element.
    void Fill(const T& value) noexcept;
    void Swap(TQDataBuf& other) noexcept;
};

using BYTEBuf = TQDataBuf<BYTE, TQMemory::Heap>;
using DynBYTEBuf = TQDataBuf<BYTE, TQMemory::Local>;
using TCHARBuf = TQDataBuf<wchar_t, TQMemory::Heap>;

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf() noexcept : TQDataBuf(_SecureLevel::Plain) {}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(_SecureLevel level) noexcept
    : _TQDataBufRoot(TQAllocatorFor<N>(), nullptr, level) {}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(std::pmr::memory_resource& memory, _SecureLevel level) noexcept
    : _TQDataBufRoot(TQAllocatorFor<N>(), &memory, level) {}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(ULONGLONG count, _SecureLevel level) : TQDataBuf(level) {
    Resize(count);
}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(const T* source, ULONGLONG count, _SecureLevel level) : TQDataBuf(level) {
    Assign(source, count);
}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(std::span<const T> source, _SecureLevel level)
    : TQDataBuf(source.data(), source.size(), level) {}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(std::initializer_list<T> elements, _SecureLevel level)
    : TQDataBuf(elements.begin(), elements.size(), level) {}

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(const TQDataBuf& other) = default;

template <class T, unsigned N>
TQDataBuf<T, N>::TQDataBuf(TQDataBuf&& other) noexcept = default;

template <class T, unsigned N>
TQDataBuf<T, N>& TQDataBuf<T, N>::operator=(const TQDataBuf& other) = default;

template <class T, unsigned N>
TQDataBuf<T, N>& TQDataBuf<T, N>::operator=(TQDataBuf&& other) noexcept(false) = default;

template <class T, unsigned N>
TQDataBuf<T, N>::~TQDataBuf() = default;

template <class T, unsigned N>
T* TQDataBuf<T, N>::Data() noexcept {
    return reinterpret_cast<T*>(Block());
}

template <class T, unsigned N>
const T* TQDataBuf<T, N>::Data() const noexcept {
    return reinterpret_cast<const T*>(Block());
}

template <class T, unsigned N>
T* TQDataBuf<T, N>::begin() noexcept {
    return Data();
}

template <class T, unsigned N>
T* TQDataBuf<T, N>::end() noexcept {
    return Data() + Size();
}

template <class T, unsigned N>
const T* TQDataBuf<T, N>::begin() const noexcept {
    return Data();
}

template <class T, unsigned N>
const T* TQDataBuf<T, N>::end() const noexcept {
    return Data() + Size();
}

template <class T, unsigned N>
ULONGLONG TQDataBuf<T, N>::Size() const noexcept {
    return Bytes() / sizeof(T);
}

template <class T, unsigned N>
ULONGLONG TQDataBuf<T, N>::Capacity() const noexcept {
    return BlockSize() / sizeof(T);
}

template <class T, unsigned N>
T& TQDataBuf<T, N>::operator[](ULONGLONG index) noexcept {
    return Data()[index];
}

template <class T, unsigned N>
const T& TQDataBuf<T, N>::operator[](ULONGLONG index) const noexcept {
    return Data()[index];
}

template <class T, unsigned N>
T& TQDataBuf<T, N>::At(ULONGLONG index) {
    CheckRange(index, 1, Size(), L"TQDataBuf::At");
    return Data()[index];
}

template <class T, unsigned N>
const T& TQDataBuf<T, N>::At(ULONGLONG index) const {
    CheckRange(index, 1, Size(), L"TQDataBuf::At");
    return Data()[index];
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Resize(ULONGLONG count) {
    constexpr const wchar_t* where = L"TQDataBuf::Resize";
    const std::size_t bytes = ByteCount(count, sizeof(T), where);
    const std::size_t kept = std::min<std::size_t>(bytes, Bytes());
    Splice(kept, Bytes() - kept, nullptr, bytes - kept, where);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Reserve(ULONGLONG count) {
    constexpr const wchar_t* where = L"TQDataBuf::Reserve";
    ReserveBytes(ByteCount(count, sizeof(T), where), where);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Assign(const T* source, ULONGLONG count) {
    constexpr const wchar_t* where = L"TQDataBuf::Assign";
    CheckSource(source, count, where);
    Splice(0, Bytes(), source, ByteCount(count, sizeof(T), where), where);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Append(const T* source, ULONGLONG count) {
    constexpr const wchar_t* where = L"TQDataBuf::Append";
    CheckSource(source, count, where);
    Splice(Bytes(), 0, source, ByteCount(count, sizeof(T), where), where);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Assign(std::span<const T> source) {
    Assign(source.data(), source.size());
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Append(std::span<const T> source) {
    Append(source.data(), source.size());
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Insert(ULONGLONG index, std::span<const T> source) {
    Insert(index, source.data(), source.size());
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Append(const TQDataBuf& other) {
    Append(other.Data(), other.Size());
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Append(const T& value) {
    Append(&value, 1);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Insert(ULONGLONG index, const T* source, ULONGLONG count) {
    constexpr const wchar_t* where = L"TQDataBuf::Insert";
    CheckRange(index, 0, Size(), where);
    CheckSource(source, count, where);
    Splice(index * sizeof(T), 0, source, ByteCount(count, sizeof(T), where), where);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Remove(ULONGLONG index, ULONGLONG count) {
    constexpr const wchar_t* where = L"TQDataBuf::Remove";
    CheckRange(index, count, Size(), where);
    Splice(index * sizeof(T), count * sizeof(T), nullptr, 0, where);
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Fill(const T& value) noexcept {
    std::fill(begin(), end(), T(value));
}

template <class T, unsigned N>
void TQDataBuf<T, N>::Swap(TQDataBuf& other) noexcept {
    _TQDataBufRoot::Swap(other);
}

template <class T, unsigned N>
bool operator==(const TQDataBuf<T, N>& left, const TQDataBuf<T, N>& right) noexcept {
    using Level = _TQDataBufRoot::_SecureLevel;
    if constexpr (std::has_unique_object_representations_v<T>)
        if (left.SecureLevel() != Level::Plain || right.SecureLevel() != Level::Plain)
            return left.EqualsSecret(right);
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

template <class T, unsigned N>
auto operator<=>(const TQDataBuf<T, N>& left, const TQDataBuf<T, N>& right) noexcept {
    return std::lexicographical_compare_three_way(left.begin(), left.end(), right.begin(), right.end());
}

extern template class TQLIB_API TQDataBuf<BYTE, TQMemory::Heap>;
extern template class TQLIB_API TQDataBuf<BYTE, TQMemory::Local>;
extern template class TQLIB_API TQDataBuf<BYTE, TQMemory::Pages>;
extern template class TQLIB_API TQDataBuf<wchar_t, TQMemory::Heap>;

}  // namespace Quellan::Corvel

// The level is no part of it, as it is none of the value.
template <class T, unsigned N>
requires std::has_unique_object_representations_v<T>
struct std::hash<Quellan::Corvel::TQDataBuf<T, N>> {
    std::size_t operator()(const Quellan::Corvel::TQDataBuf<T, N>& buffer) const noexcept {
        return std::hash<std::string_view>()(
            {reinterpret_cast<const char*>(buffer.Data()), static_cast<std::size_t>(buffer.Bytes())});
    }
};
