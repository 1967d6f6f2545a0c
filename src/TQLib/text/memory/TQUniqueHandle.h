// The only owner of a platform handle.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <concepts>
#include <functional>
#include <utility>

namespace Quellan::Corvel {

// Puts the calling thread's last error back at the end of its scope: for closers and destructors, which must
// not change what their caller is about to read.
class TQLIB_API _TQLastErrorKeeper {
  public:
    [[nodiscard]] _TQLastErrorKeeper() noexcept;
    _TQLastErrorKeeper(const _TQLastErrorKeeper&) = delete;
    _TQLastErrorKeeper& operator=(const _TQLastErrorKeeper&) = delete;
    ~_TQLastErrorKeeper();

  private:
    DWORD m_code;
};

// Policies that know how to make another handle to what a handle stands for.
template <class C>
concept _TQDuplicatingPolicy = requires(typename C::Handle handle) {
    { C::Duplicate(handle) } -> std::same_as<typename C::Handle>;
};

// The only owner of one handle of the kind that the policy `C` tells (those of `TQHandle`), or of none: one
// word, and nothing is allocated. It can be moved, and be handed to a `TQHandle` where others are to share
// it. One owner belongs to one thread at a time; what it closes leaves the last error alone.
template <class C>
class TQUniqueHandle {
  public:
    using RawHandle = typename C::Handle;

    TQUniqueHandle() noexcept = default;
    // Takes the handle over; an empty value, as failed calls return it, makes an empty owner.
    explicit TQUniqueHandle(RawHandle handle) noexcept : m_handle(handle) {}
    TQUniqueHandle(TQUniqueHandle&& other) noexcept : m_handle(other.Detach()) {}
    TQUniqueHandle& operator=(TQUniqueHandle other) noexcept {
        Swap(other);
        return *this;
    }
    ~TQUniqueHandle() { Close(); }

    [[nodiscard]] RawHandle Get() const noexcept { return m_handle; }
    [[nodiscard]] bool IsValid() const noexcept { return !C::IsEmpty(m_handle); }
    explicit operator bool() const noexcept { return IsValid(); }

    void Close() noexcept {
        if (!IsValid()) return;
        const _TQLastErrorKeeper keeper;
        C::Close(Detach());
    }
    // Closes what was owned, unless it is `handle` itself, and takes `handle` over.
    void Attach(RawHandle handle) noexcept {
        if (handle != m_handle) *this = TQUniqueHandle(handle);
    }
    // The caller's from now on.
    [[nodiscard]] RawHandle Detach() noexcept { return std::exchange(m_handle, C::Empty()); }
    // Where a platform call is to put the handle that it hands out. Whatever was owned is closed.
    [[nodiscard]] RawHandle* Put() noexcept {
        Close();
        return &m_handle;
    }
    void Swap(TQUniqueHandle& other) noexcept { std::swap(m_handle, other.m_handle); }

    // Another handle to the same thing, with the same rights, which child processes do not inherit; none
    // where there is none. Throws the platform's code where it refuses.
    [[nodiscard]] TQUniqueHandle Duplicate() const requires _TQDuplicatingPolicy<C> {
        return DuplicateOf(m_handle);
    }
    // The same for a handle of somebody else's.
    [[nodiscard]] static TQUniqueHandle DuplicateOf(RawHandle handle) requires _TQDuplicatingPolicy<C> {
        if (C::IsEmpty(handle)) return {};
        TQUniqueHandle copy(C::Duplicate(handle));
        if (!copy) TQStdExceptions::ThrowLastError(L"TQUniqueHandle::Duplicate");
        return copy;
    }

    // All values for none are equal.
    friend bool operator==(const TQUniqueHandle& left, const TQUniqueHandle& right) noexcept {
        return left == right.m_handle;
    }
    friend bool operator==(const TQUniqueHandle& left, RawHandle right) noexcept {
        return C::IsEmpty(right) ? !left : left.m_handle == right;
    }

  private:
    RawHandle m_handle = C::Empty();
};

}  // namespace Quellan::Corvel

template <class C>
struct std::hash<Quellan::Corvel::TQUniqueHandle<C>> {
    std::size_t operator()(const Quellan::Corvel::TQUniqueHandle<C>& handle) const noexcept {
        return std::hash<typename C::Handle>()(handle ? handle.Get() : C::Empty());
    }
};
