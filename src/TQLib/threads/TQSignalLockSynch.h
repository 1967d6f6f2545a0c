// A lock that is to be had only while a signal is set.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/text/memory/TQSmartPtr.h"
#include "TQLib/threads/TQEvent.h"

namespace Quellan::Corvel {

// Holds the lock of a `TQSignalLockSynch` for as long as it lives. It belongs to the thread that got it: the
// last pointer to it must go on that thread.
class TQLIB_API TQSignalThreadLock : public TQObject {
  public:
    ~TQSignalThreadLock() override;

  private:
    friend class TQSignalLockSynch;
    explicit TQSignalThreadLock(TQThreadSynch& lock);

    TQThreadSynch::TQSynchLock m_guard;
};

// A signal and a lock. A thread that asks for the lock waits until the signal is set; it stays set until
// `Clear`. For several threads.
class TQLIB_API TQSignalLockSynch : public TQObject {
  public:
    using LockPtr = TQSmartPtr<TQSignalThreadLock, _TQRefThrPtr<TQSignalThreadLock>>;

    // The lock must outlive this object; the signal is set at first if `isSet`. Throws "Attempt to open event
    // object failed.".
    TQSignalLockSynch(TQThreadSynch& lock, bool isSet);
    TQSignalLockSynch(const TQSignalLockSynch&) = delete;
    TQSignalLockSynch& operator=(const TQSignalLockSynch&) = delete;
    ~TQSignalLockSynch() override;

    // None of these takes the lock.
    void Set();
    void Clear();
    [[nodiscard]] bool IsSet() const;

    // Waits up to `ms` milliseconds for the signal, then takes the lock, for which it waits without end. The
    // signal was set at a moment at which the lock was held: one that is cleared while the lock is being
    // waited for is waited for again. Null when the time is up. Throws "Wait on synch object failed." and,
    // code 14 (ERROR_OUTOFMEMORY), "Allocation of signaled thread lock object failed"; the lock is not held
    // then.
    [[nodiscard]] LockPtr GetLock(DWORD ms);
    [[nodiscard]] LockPtr GetLock(TQTimeSpan time) { return GetLock(time.TimeoutMs()); }

  private:
    LockPtr NewLock();
    bool IsStillSet();

    TQThreadSynch& m_lock;

    mutable TQThreadSynch m_flagLock;
    bool m_isSet TQ_GUARDED_BY(m_flagLock);
    const TQEvent m_signal;  // set after the flag, reset together with it
};

}  // namespace Quellan::Corvel
