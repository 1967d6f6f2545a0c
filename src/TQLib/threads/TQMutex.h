// Mutexes.
#pragma once

#include "TQLib/text/memory/TQSmartPtr.h"
#include "TQLib/threads/TQSynchObj.h"

namespace Quellan::Corvel {

class _TQMutexLockImpl;

// A recursive lock that belongs to a thread and that processes can share by its name. A thread that ends
// while it owns the mutex abandons it: the next one to wait gets it as if it had been released.
//
// Failures: "Wait on synch object failed." with the platform's code, 14 (ERROR_OUTOFMEMORY) before anything
// is waited for; the mutex and the lock given are as before then.
class TQLIB_API TQMutex : public TQSynchObj {
  public:
    class TQLIB_API TQMutexLock;

    // Unnamed and free. Throws "Attempt to open mutex object failed.", as does the other constructor.
    TQMutex();
    // Opens the mutex of this name (see `KernelObjectName`), or makes it, free. Without a name it is a new
    // one. Code 6 (ERROR_INVALID_HANDLE) where the name belongs to something that is no mutex.
    TQMutex(const wchar_t* name, bool global);

    // Waits up to `ms` milliseconds for the mutex. A lock that holds nothing when the time is up.
    [[nodiscard]] TQMutexLock Acquire(DWORD ms) const;
    [[nodiscard]] TQMutexLock Acquire(TQTimeSpan time) const;
    // Waits for the mutex or one of `extraCount` (up to 63) other objects, whichever is signalled first, or
    // with `waitAll` for all of them. Gives the index of what was signalled, 0 for the mutex and from 1 on
    // the extra handles (with `waitAll` always 0), or WAIT_TIMEOUT (258). `lock` then holds the mutex if it
    // was acquired, else nothing. An extra handle that is a mutex belongs to the calling thread when its
    // index is returned.
    [[nodiscard]] DWORD Acquire(TQMutexLock& lock, DWORD ms, void* const* extraHandles,
                                DWORD extraCount) const;
    [[nodiscard]] DWORD Acquire(TQMutexLock& lock, bool waitAll, DWORD ms, void* const* extraHandles,
                                DWORD extraCount) const;

    // Gives up one acquisition of the calling thread that no lock stands for. Throws 288 (ERROR_NOT_OWNER).
    void Release() const;
};

// Stands for one acquisition of a mutex, or for nothing. Copies share the acquisition, which ends with the
// last of them; all of them belong to the thread that acquired. It keeps the mutex open.
class [[nodiscard]] TQMutex::TQMutexLock {
  public:
    TQMutexLock() noexcept;
    // Waits as `Acquire` does; `IsLocked` tells whether the mutex was acquired.
    TQMutexLock(const TQMutex& mutex, DWORD ms);
    TQMutexLock(const TQMutex& mutex, TQTimeSpan time) : TQMutexLock(mutex, time.TimeoutMs()) {}
    // The result is what `Acquire` returns.
    TQMutexLock(const TQMutex& mutex, DWORD ms, void* const* extraHandles, DWORD extraCount, DWORD& result);
    TQMutexLock(const TQMutex& mutex, bool waitAll, DWORD ms, void* const* extraHandles, DWORD extraCount,
                DWORD& result);
    TQMutexLock(const TQMutexLock&) noexcept;
    TQMutexLock(TQMutexLock&&) noexcept;
    TQMutexLock& operator=(const TQMutexLock&) noexcept;
    TQMutexLock& operator=(TQMutexLock&&) noexcept;
    ~TQMutexLock();

    [[nodiscard]] bool IsLocked() const noexcept { return static_cast<bool>(m_impl); }
    explicit operator bool() const noexcept { return IsLocked(); }

  private:
    friend class TQMutex;
    using Impl = TQSmartPtr<_TQMutexLockImpl, _TQRefPtr<_TQMutexLockImpl>>;

    Impl m_impl;
};

inline TQMutex::TQMutexLock TQMutex::Acquire(TQTimeSpan time) const {
    return Acquire(time.TimeoutMs());
}

}  // namespace Quellan::Corvel
