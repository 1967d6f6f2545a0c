// The lock that many readers or one writer hold.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/threads/TQEvent.h"

#include <atomic>

namespace Quellan::Corvel {

// A recursive reader/writer lock between the threads of one process. A `TQSynchLock` on it takes it for
// reading, one on a `TQThreadWriteSynch` made from it for writing. It must not be destroyed while it is held.
//
//                    free      read by others   read by itself    written by others   written by itself
//     asks to read   gets it   gets it          gets it again     waits               waits, for ever
//     asks to write  gets it   waits            waits, for ever   waits               gets it again
//
// There is no upgrade and no downgrade. All who wait run for the lock when it becomes free, in no order;
// readers that come while others read pass by waiting writers.
//
// A copy is a lock of its own, free at first. Assignment makes the target free: whoever held it no longer
// does, and its later release changes nothing. A thread that ends while it holds the lock holds it for ever.
//
// Failures: "Attempt to open event object failed." when it is made, "Wait on synch object failed." when it
// has to wait, 14 (ERROR_OUTOFMEMORY) for a thread that holds more than eight such locks at once; the lock is
// not held then.
class TQ_LOCK_CLASS TQLIB_API TQThreadReadSynch : public TQObject {
  public:
    using TQSynchLock = TQThreadSynch::TQSynchLock;

    TQThreadReadSynch();
    TQThreadReadSynch(const TQThreadReadSynch& other);
    TQThreadReadSynch& operator=(const TQThreadReadSynch& other);
    ~TQThreadReadSynch() override;

  private:
    friend TQSynchLock;
    friend class TQThreadWriteSynch;

    void Lock(bool write);
    // Ends one holding of the calling thread; nothing happens where it holds nothing.
    void UnLock();

    bool TryLock(bool write);
    void WaitForNoHolder(bool write);
    void Release(ULONGLONG share, DWORD epoch);
    void ReleaseLast(ULONGLONG share, DWORD epoch);

    const ULONGLONG m_number;  // of this lock among all that ever were

    TQThreadSynch m_guard;  // of the event, which is reset for those who are going to wait
    TQEvent m_noHolder;

    // Who holds the lock: nobody, readers (each thread counts once) or a writer, and whether somebody waits;
    // and the epoch, which each assignment ends. How a thread holds the lock, how often and since which epoch
    // is kept with the thread, under the lock's number. The state stands apart from the rest, as readers on
    // several cores look at that while others change the state.
    std::atomic<ULONGLONG> m_state = 0;
};

// The writers' side of a reader/writer lock, which must outlive it. Writers that use one object are queued up
// by its own critical section before they wait for readers.
class TQLIB_API TQThreadWriteSynch : public TQThreadSynch {
  public:
    explicit TQThreadWriteSynch(TQThreadReadSynch& lock) noexcept;
    ~TQThreadWriteSynch() override;

  protected:
    void Lock() override;
    void UnLock() override;

  private:
    void LockQueued();
    [[nodiscard]] bool IsQueued() const noexcept;

    TQThreadReadSynch& m_lock;
    // The thread that holds the critical section, and the lock as often as is counted here.
    std::atomic<DWORD> m_queued = 0;
    DWORD m_queuedDepth = 0;
};

}  // namespace Quellan::Corvel
