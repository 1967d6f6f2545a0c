// The owner of a platform handle inside the library.
#pragma once

#include "TQLib/platform/Types.h"

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

// The only owner of one handle of the kind that the policy `C` tells, or of none: one word, and nothing is
// allocated. What it closes leaves the last error alone.
template <class C>
class UniqueHandle {
  public:
    using RawHandle = typename C::Handle;

    UniqueHandle() noexcept = default;
    explicit UniqueHandle(RawHandle handle) noexcept : m_handle(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : m_handle(other.Detach()) {}
    UniqueHandle& operator=(UniqueHandle other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~UniqueHandle() { Close(); }

    [[nodiscard]] RawHandle Get() const noexcept { return m_handle; }
    [[nodiscard]] bool IsValid() const noexcept { return !C::IsEmpty(m_handle); }
    explicit operator bool() const noexcept { return IsValid(); }

    void Close() noexcept {
        if (!IsValid()) return;
        const _TQLastErrorKeeper keeper;
        C::Close(Detach());
    }
    // The caller's from now on.
    [[nodiscard]] RawHandle Detach() noexcept { return std::exchange(m_handle, C::Empty()); }
    // Where a platform call is to put the handle that it hands out. Whatever was owned is closed.
    [[nodiscard]] RawHandle* Receive() noexcept {
        Close();
        return &m_handle;
    }

  private:
    RawHandle m_handle = C::Empty();
};

}  // namespace Quellan::Corvel
