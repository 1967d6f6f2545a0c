// Callbacks that may be taken away while other threads call them.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/Platform.h"

#include <atomic>
#include <thread>
#include <utility>

namespace Quellan::Corvel {

// The calls of callbacks that are under way: whoever takes a callback away waits here for those of other
// threads, so that afterwards what the callback uses may go. `Key` tells callbacks apart. Allocates nothing.
// Must outlive all calls.
template <class Key>
class CallsUnderWay {
  public:
    // One call, on the stack of the thread that makes it.
    struct Call {
        Key key{};
        std::thread::id thread = std::this_thread::get_id();
        Call* next = nullptr;
    };

    // Held while a callback is chosen and its call begun, or taken away; never while it runs.
    TQThreadSynch lock;

    void Begin(Call& call) noexcept TQ_REQUIRES(lock) {
        ForgetOtherProcess();
        call.next = std::exchange(m_first, &call);
    }

    void End(Call& call) noexcept {
        {
            const TQThreadSynch::TQSynchLock guard(lock);
            ForgetOtherProcess();
            Call** link = &m_first;
            while (*link && *link != &call)
                link = &(*link)->next;
            if (*link) *link = call.next;
            m_ended.fetch_add(1, std::memory_order_relaxed);
        }
        m_ended.notify_all();
    }

    // Not under the lock.
    void WaitFor(const Key& key) noexcept {
        for (;;) {
            unsigned ended = 0;
            {
                const TQThreadSynch::TQSynchLock guard(lock);
                ForgetOtherProcess();
                if (!IsCalledByOthers(key)) return;
                ended = m_ended.load(std::memory_order_relaxed);
            }
            m_ended.wait(ended, std::memory_order_relaxed);
        }
    }

  private:
    // A forked child has none of the threads whose calls it inherits.
    void ForgetOtherProcess() noexcept TQ_REQUIRES(lock) {
        const DWORD process = GetCurrentProcessId();
        if (std::exchange(m_process, process) != process) m_first = nullptr;
    }

    bool IsCalledByOthers(const Key& key) const noexcept TQ_REQUIRES(lock) {
        for (const Call* call = m_first; call; call = call->next)
            if (call->key == key && call->thread != std::this_thread::get_id()) return true;
        return false;
    }

    Call* m_first TQ_GUARDED_BY(lock) = nullptr;
    DWORD m_process TQ_GUARDED_BY(lock) = 0;  // whose calls these are
    std::atomic<unsigned> m_ended = 0;        // calls so far; raised under the lock
};

}  // namespace Quellan::Corvel
