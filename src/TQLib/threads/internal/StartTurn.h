// Who makes a thread of a pool.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/threads/internal/PoolHandle.h"

namespace Quellan::Corvel {

// The turn to make a thread. One at a time has it, and the others can wait until nobody has it.
class StartTurn {
  public:
    // Takes the turn where nobody has it and `mayStart` says yes, under a lock of this object's; false
    // otherwise. Throws the platform's code.
    template <class Condition>
    [[nodiscard]] bool Take(Condition mayStart) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_isTaken || !mayStart()) return false;
        if (!ResetEvent(m_isFree.get())) TQSysException::ThrowLastError(L"_TQThreadPoolBase::BeginStart");
        m_isTaken = true;
        return true;
    }
    // Under the lock: an event that is set late would tell that the next turn is over.
    void GiveBack() noexcept {
        Insist([this] {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            m_isTaken = !SetEvent(m_isFree.get());
            return !m_isTaken;
        });
    }

    // Waits until nobody has the turn; may come back before.
    void Await() const noexcept { WaitForSingleObject(m_isFree.get(), INFINITE); }
    // Waits until nobody has the turn who took it while `mayStart` still said yes. To be called when it says
    // no: who was looking just then has the lock.
    void AwaitLast() noexcept {
        { const TQThreadSynch::TQSynchLock guard(m_lock); }
        AwaitSurely({m_isFree.get()});
    }

    void Close() noexcept { m_isFree.reset(); }

  private:
    PoolHandle m_isFree = NewPoolEvent(true, true);
    TQThreadSynch m_lock;
    bool m_isTaken TQ_GUARDED_BY(m_lock) = false;
};

}  // namespace Quellan::Corvel
