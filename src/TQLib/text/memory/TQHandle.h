// Owners of platform handles.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/text/memory/TQSmartPtr.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <compare>
#include <functional>
#include <new>
#include <utility>

namespace Quellan::Corvel {

// What the policies of `TQHandle` have in common: the type of the handle, and null as the value for none.
template <class H>
struct _TQNullHandle {
    using Handle = H;
    [[nodiscard]] static H Empty() noexcept { return H(); }
    [[nodiscard]] static bool IsEmpty(H handle) noexcept { return handle == H(); }
};

// Files and searches: INVALID_HANDLE_VALUE stands for none, and null is taken for none as well.
struct _TQInvalidHandle {
    using Handle = HANDLE;
    [[nodiscard]] static HANDLE Empty() noexcept { return reinterpret_cast<HANDLE>(~std::uintptr_t{0}); }
    [[nodiscard]] static bool IsEmpty(HANDLE handle) noexcept {
        return handle == nullptr || handle == Empty();
    }
};

// The policies, one for each kind of handle. `Close` ends a handle that isn't empty; a failure is ignored.
// `Duplicate`, where a kind has it, makes another one, or gives the value for none with the last error.

// Events, mutexes, threads, processes, tokens, completion ports: CloseHandle.
struct TQLIB_API _TQKernelHandleClose : _TQNullHandle<HANDLE> {
    static void Close(HANDLE handle) noexcept;
    static HANDLE Duplicate(HANDLE handle) noexcept;
};

// Files: CloseHandle.
struct TQLIB_API _TQFileHandleClose : _TQInvalidHandle {
    static void Close(HANDLE handle) noexcept;
    static HANDLE Duplicate(HANDLE handle) noexcept;
};

// Searches for files: FindClose.
struct TQLIB_API _TQFindHandleClose : _TQInvalidHandle {
    static void Close(HANDLE handle) noexcept;
};

// Loaded modules: FreeLibrary.
struct TQLIB_API _TQModuleClose : _TQNullHandle<HMODULE> {
    static void Close(HMODULE handle) noexcept;
};

// Memory that a platform call handed out: LocalFree.
struct TQLIB_API _TQLocalMemClose : _TQNullHandle<void*> {
    static void Close(void* handle) noexcept;
};

// Registered event sources: DeregisterEventSource.
struct TQLIB_API _TQEventSourceClose : _TQNullHandle<HANDLE> {
    static void Close(HANDLE handle) noexcept;
};

// Registry keys: RegCloseKey.
struct TQLIB_API _TQRegKeyClose : _TQNullHandle<HKEY> {
    static void Close(HKEY handle) noexcept;
};

// A reference-counted owner of one platform handle of the kind that the policy `C` tells: copies share the
// handle, which is closed when the last of them goes. The count is safe between threads; one holder belongs
// to one thread at a time. Whatever a holder does leaves the last error alone.
//
// Failures: 14 (ERROR_OUTOFMEMORY) where there is no memory for the count. What was to be taken over stays
// with its owner then, so a handle fresh from a call goes through `Unique`, which closes it:
//
//     TQHandle<_TQKernelHandleClose> event = TQHandle<_TQKernelHandleClose>::Unique(CreateEventW(...));
template <class C>
class TQHandle {
  public:
    using RawHandle = typename C::Handle;
    using Unique = TQUniqueHandle<C>;

    TQHandle() noexcept = default;
    // Takes the handle over; an empty value, as failed calls return it, makes an empty holder. Where this
    // throws the handle is still the caller's, to close or to try again.
    explicit TQHandle(RawHandle handle) : m_holder(NewShare(handle)) {}
    // Takes over what `owner` owns, which keeps it where this throws.
    TQHandle(Unique&& owner) : TQHandle(owner.Get()) { static_cast<void>(owner.Detach()); }

    // The handle, owned by this holder and its copies; the kind's value for none when empty.
    [[nodiscard]] RawHandle Get() const noexcept { return IsValid() ? Shared()->handle.Get() : C::Empty(); }
    [[nodiscard]] RawHandle Handle() const noexcept { return Get(); }
    [[nodiscard]] bool IsValid() const noexcept { return m_holder.Record() != nullptr; }
    explicit operator bool() const noexcept { return IsValid(); }
    // How many holders share the handle, 0 for an empty one.
    [[nodiscard]] ULONG UseCount() const noexcept { return m_holder.Holders(); }

    // Gives this holder's share up.
    void Close() noexcept { m_holder = {}; }
    // Gives the share up and takes `handle` over, as the constructor does; where that throws this holder is
    // unchanged and the handle the caller's.
    void Attach(RawHandle handle) { *this = TQHandle(handle); }
    // Hands the handle over to the caller and leaves the holder empty. Throws 1 (ERROR_INVALID_FUNCTION)
    // where the handle is shared: the others would go on using it.
    [[nodiscard]] RawHandle Detach() {
        if (!IsValid()) return C::Empty();
        if (UseCount() != 1) TQStdExceptions::ThrowBadFuncError(L"TQHandle::Detach");
        const RawHandle handle = Shared()->handle.Detach();
        Close();
        return handle;
    }
    void Swap(TQHandle& other) noexcept { std::swap(m_holder, other.m_holder); }

    // As `TQUniqueHandle::Duplicate`: a handle of its own, which is closed by itself.
    [[nodiscard]] Unique Duplicate() const requires _TQDuplicatingPolicy<C> {
        return Unique::DuplicateOf(Get());
    }

    // Two holders are equal when their raw handles are.
    friend bool operator==(const TQHandle& left, const TQHandle& right) noexcept {
        return left.Get() == right.Get();
    }
    friend auto operator<=>(const TQHandle& left, const TQHandle& right) noexcept {
        return std::compare_three_way()(left.Get(), right.Get());
    }
    // All values for none are equal.
    friend bool operator==(const TQHandle& left, RawHandle right) noexcept {
        return C::IsEmpty(right) ? !left : left.Get() == right;
    }

  private:
    struct Share final : _TQRefRecord<_TQRefThrCount> {
        explicit Share(RawHandle owned) noexcept : handle(owned) {}
        void EndWithLast() noexcept override { delete this; }
        Unique handle;
    };

    [[nodiscard]] static Share* NewShare(RawHandle handle) {
        if (C::IsEmpty(handle)) return nullptr;
        auto* share = new (std::nothrow) Share(handle);
        if (!share) TQStdExceptions::ThrowMemAllocError(L"TQHandle::TQHandle");
        return share;
    }

    [[nodiscard]] Share* Shared() const noexcept { return static_cast<Share*>(m_holder.Record()); }

    _TQRefHolder<_TQRefThrCount> m_holder;
};

}  // namespace Quellan::Corvel

template <class C>
struct std::hash<Quellan::Corvel::TQHandle<C>> {
    std::size_t operator()(const Quellan::Corvel::TQHandle<C>& handle) const noexcept {
        return std::hash<typename C::Handle>()(handle.Get());
    }
};
