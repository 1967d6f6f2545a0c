// The threads of a pool.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/threads/internal/PoolCounters.h"
#include "TQLib/threads/internal/PoolHandle.h"
#include "TQLib/threads/internal/PoolQueue.h"
#include "TQLib/threads/internal/StartTurn.h"

#include <atomic>
#include <map>
#include <memory>

namespace Quellan::Corvel {

// The thread objects that a pool has made: they are started when items need them, leave when they are too
// many, and are deleted when their threads have ended. For several threads.
class PoolThreads {
  public:
    // All of them outlive this. Throws "Wakeup event could not be created for thread pool.".
    PoolThreads(_TQThreadPoolBase& pool, PoolQueue& queue, PoolCounters& counters, DWORD maxThreads);

    [[nodiscard]] DWORD Max() const noexcept { return m_limits.maximum; }

    // Whether there is more to do than threads at hand, and the pool may have another one.
    [[nodiscard]] bool NeedsThread() const noexcept {
        if (m_counters.IsFull(m_limits.maximum)) return false;
        // One more where packets of others may come, which nobody counts.
        return m_counters.AtHand() < m_queue.InFlight() + m_counters.HasPortObjects();
    }
    // Returns when there is a thread that takes items. It may leave before the next one is posted: see
    // `Retire`. Throws as `AllocPoolThread`.
    void RequireThread() {
        if (m_counters.ServesNobody()) MakeFirstThread();
    }
    // Makes one thread, and the pool's own before the first. False where the pool has all the threads that it
    // may have, and where somebody else is making one: he looks afterwards whether the pool needs still more.
    // Throws what `TQThread::Start` throws, and as `PoolQueue::ThrowStopped`.
    bool AllocPoolThread();
    // Lets the pool's own thread look at the threads.
    void Wake() const noexcept { SetSurely(m_wake.get()); }
    [[nodiscard]] HANDLE WakeEvent() const noexcept { return m_wake.get(); }

    [[nodiscard]] bool Has(TQPoolThread& thread) const;
    // The calling thread's object, or null.
    [[nodiscard]] TQPoolThread* Calling();

    // Whether a thread may retire as far as the pool's work goes.
    [[nodiscard]] bool CanStop() const noexcept {
        return m_queue.InFlight() == 0 && m_counters.PortObjectCount() == 0;
    }
    // What a thread does that waited in vain, in a pool that has been idle for `idle`: true where it has
    // left.
    [[nodiscard]] bool Retire(TQPoolThread& thread, TQTimeSpan idle);
    // What a thread does that takes no more items. It counts as busy.
    void Leave(TQPoolThread& thread);

    // Since the first thread waited in vain; zero where none has since an item was last taken.
    [[nodiscard]] TQTimeSpan IdleTime() const;
    void EndIdleTime() noexcept {
        if (m_isIdle.load(std::memory_order_relaxed)) m_isIdle = false;
    }

    // Deletes the objects of threads that have left.
    void DeleteRetired();
    // The last step of a stopped pool's own thread: sees all threads out.
    void EndAll();
    // For a stopped pool. Waits until nobody makes a thread.
    void AwaitStarts() noexcept { m_turn.AwaitLast(); }
    // For a stopped pool. On one of its threads waits until all others have ended, but those that wait here
    // too; false elsewhere.
    bool AwaitOthers();

    // Once no thread is left.
    void Close() noexcept;

  private:
    struct Object {
        std::unique_ptr<TQPoolThread> thread;
        bool isBeingStarted = true;  // somebody is inside `Start`: the object must stay
        bool isStopping = false;     // it is inside the pool's `StopThreads`, or was
    };
    using Objects = std::map<TQPoolThread*, Object>;

    void MakeFirstThread();
    [[nodiscard]] bool IsCallerBeingStarted();
    void StartPoolThread();
    [[nodiscard]] Object* FindCalling() TQ_REQUIRES(m_lock);
    void MoveOut(TQPoolThread& thread) noexcept TQ_REQUIRES(m_lock);
    void Delete(Objects::node_type object) noexcept;
    void TellStoppers() noexcept;

    _TQThreadPoolBase& m_pool;
    PoolQueue& m_queue;
    PoolCounters& m_counters;
    const _TQThreadPoolBase::ThreadLimits m_limits;

    PoolHandle m_wake = NewPoolEvent(false, false);
    PoolHandle m_othersGone = NewPoolEvent(true, false);  // only threads are left that stop the pool
    StartTurn m_turn;
    bool m_hasOwnThread = false;  // the turn's

    mutable TQThreadSynch m_lock;
    Objects m_live TQ_GUARDED_BY(m_lock);
    Objects m_retired TQ_GUARDED_BY(m_lock);
    DWORD m_objects TQ_GUARDED_BY(m_lock) = 0;   // in both, and those that are being deleted
    DWORD m_stoppers TQ_GUARDED_BY(m_lock) = 0;  // of them, those that are stopping the pool
    TQTimer m_idleTimer TQ_GUARDED_BY(m_lock);
    std::atomic<bool> m_isIdle = false;  // the timer runs
};

}  // namespace Quellan::Corvel
