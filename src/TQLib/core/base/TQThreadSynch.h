// The lock of the library, and the guard through which every lock is taken.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

class TQThreadReadSynch;

// A recursive lock between the threads of one process: one critical section. It is taken through
// `TQSynchLock` alone; a class that overrides `Lock` and `UnLock` changes what every guard on it does. It
// must not be destroyed while it is held.
//
// A lock is never shared by copying: a copy is a lock of its own, free at first, and a lock that is assigned
// to stays the one it was.
class TQ_LOCK_CLASS TQLIB_API TQThreadSynch : public TQObject {
  public:
    class TQLIB_API TQSynchLock;

    TQThreadSynch() noexcept;
    TQThreadSynch(const TQThreadSynch& other) noexcept;
    TQThreadSynch& operator=(const TQThreadSynch&) noexcept { return *this; }
    ~TQThreadSynch() override;

  protected:
    // For a lock inside which its owner may wait for a kernel object: the one kind that is not reported where
    // test builds look for such waits.
    struct HeldWhileWaiting {};
    explicit TQThreadSynch(HeldWhileWaiting) noexcept;

    virtual void Lock();
    // On the thread that called `Lock`, once for each call.
    virtual void UnLock();

  private:
    // The platform's critical section, without the platform's header.
    alignas(void*) std::byte m_section[40];
};

// Holds a lock from its construction to its destruction, on one thread.
class [[nodiscard]] TQ_GUARD_CLASS TQThreadSynch::TQSynchLock {
  public:
    [[nodiscard]] explicit TQSynchLock(TQThreadSynch& lock) TQ_ACQUIRES(lock) TQ_NOT_ANALYSED
        : m_lock(&lock) {
        lock.Lock();
    }
    // Takes the lock for reading; a `TQThreadWriteSynch` on it takes it for writing.
    [[nodiscard]] explicit TQSynchLock(TQThreadReadSynch& lock) TQ_ACQUIRES_SHARED(lock);
    TQSynchLock(const TQSynchLock&) = delete;
    TQSynchLock& operator=(const TQSynchLock&) = delete;
    ~TQSynchLock() TQ_RELEASES() TQ_NOT_ANALYSED {
        if (m_lock)
            m_lock->UnLock();
        else
            UnLockRead();
    }

  private:
    void UnLockRead();

    TQThreadSynch* m_lock = nullptr;
    TQThreadReadSynch* m_readLock = nullptr;
};

}  // namespace Quellan::Corvel
