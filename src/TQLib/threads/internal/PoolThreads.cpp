#include "TQLib/threads/internal/PoolThreads.h"

#include "TQLib/text/memory/internal/Translated.h"

#include <algorithm>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr LONGLONG KeepIdleMs = 600'000;
constexpr DWORD MissingStopsMs = 50;  // until stop packets that are missing in the port are posted again

DWORD ProcessorCount() noexcept {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors;
}

}  // namespace

PoolThreads::PoolThreads(_TQThreadPoolBase& pool, PoolQueue& queue, PoolCounters& counters, DWORD maxThreads)
    : m_pool(pool),
      m_queue(queue),
      m_counters(counters),
      m_limits(_TQThreadPoolBase::LimitsFor(ProcessorCount(), maxThreads)) {}

void PoolThreads::Close() noexcept {
    m_wake.reset();
    m_othersGone.reset();
    m_turn.Close();
}

// Starts.

void PoolThreads::MakeFirstThread() {
    do {
        if (AllocPoolThread()) continue;
        if (IsCallerBeingStarted()) return;
        m_turn.Await();
    } while (m_counters.ServesNobody());
}

// Whether this is called by the `OnStart` of a pool thread, which will take what it posts there.
bool PoolThreads::IsCallerBeingStarted() {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    const Object* const self = FindCalling();
    return self && self->isBeingStarted;
}

bool PoolThreads::AllocPoolThread() {
    const bool isTurn =
        m_turn.Take([this] { return !m_queue.IsStopped() && m_counters.Allocated() < m_limits.maximum; });
    if (!isTurn) {
        if (m_queue.IsStopped()) PoolQueue::ThrowStopped();
        return false;
    }
    m_counters.AdjustAllocated(true, 1);
    try {
        if (!m_hasOwnThread) m_pool.Start();
        m_hasOwnThread = true;
        StartPoolThread();
    } catch (...) {
        m_counters.AdjustAllocated(false, 1);
        m_turn.GiveBack();
        throw;
    }
    m_turn.GiveBack();
    return true;
}

void PoolThreads::StartPoolThread() {
    constexpr const wchar_t* where = L"_TQThreadPoolBase::StartPoolThread";
    std::unique_ptr<TQPoolThread> thread(Translated(where, [&] { return m_pool.AllocThread(); }));
    TQPoolThread* const started = thread.get();
    started->AssignPool(&m_pool);
    started->SetReadyForWork(true);
    Objects made;
    Object& object = *Translated(where, [&] { return &made.try_emplace(started).first->second; });
    object.thread = std::move(thread);
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (!m_queue.IsStopped()) {
            m_live.merge(made);
            ++m_objects;
        }
    }
    if (!made.empty()) PoolQueue::ThrowStopped();
    try {
        started->Start();
    } catch (...) {
        Objects::node_type failed;
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            failed = m_live.extract(started);
        }
        Delete(std::move(failed));
        throw;
    }
    m_counters.AdjustServing(true);
    bool hasRetired;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        object.isBeingStarted = false;
        hasRetired = !m_retired.empty();
    }
    // One that has left already could not be deleted before.
    if (hasRetired) Wake();
}

// The objects.

bool PoolThreads::Has(TQPoolThread& thread) const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_live.contains(&thread);
}

TQPoolThread* PoolThreads::Calling() {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    const Object* const self = FindCalling();
    return self ? self->thread.get() : nullptr;
}

PoolThreads::Object* PoolThreads::FindCalling() {
    for (Objects* const objects : {&m_live, &m_retired})
        for (auto& [thread, object] : *objects)
            if (thread->IsOwnThread()) return &object;
    return nullptr;
}

bool PoolThreads::Retire(TQPoolThread& thread, TQTimeSpan idle) {
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_counters.Allocated() <= m_limits.minimum) {
            if (!m_isIdle) {
                m_idleTimer.Restart();
                m_isIdle = true;
                return false;
            }
            if (idle.Milliseconds() <= KeepIdleMs) return false;
        }
        // No longer counted before it looks for posts: who has just posted sees that there is no thread, or is
        // seen here. The last one to leave goes after the others: then the pool is not full.
        m_counters.AdjustServing(false);
        if (!CanStop()) {
            m_counters.AdjustServing(true);
            return false;
        }
        MoveOut(thread);
    }
    Wake();
    return true;
}

void PoolThreads::Leave(TQPoolThread& thread) {
    m_counters.AdjustServing(false);
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        MoveOut(thread);
    }
    Wake();
}

void PoolThreads::MoveOut(TQPoolThread& thread) noexcept {
    m_counters.AdjustBusy(false);
    m_counters.AdjustAllocated(false, 1);
    m_retired.insert(m_live.extract(&thread));
}

TQTimeSpan PoolThreads::IdleTime() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_isIdle ? m_idleTimer.Elapsed() : TQTimeSpan();
}

void PoolThreads::DeleteRetired() {
    for (;;) {
        TQPoolThread* thread;
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            const auto found = std::ranges::find_if(
                m_retired, [](const auto& retired) { return !retired.second.isBeingStarted; });
            if (found == m_retired.end()) return;
            thread = found->first;
        }
        AwaitSurely({thread->ThreadHandle()});
        Objects::node_type ended;
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            ended = m_retired.extract(thread);
        }
        Delete(std::move(ended));
    }
}

void PoolThreads::Delete(Objects::node_type object) noexcept {
    object.mapped().thread.reset();
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        --m_objects;
        if (object.mapped().isStopping) --m_stoppers;
    }
    TellStoppers();
}

// Ends.

void PoolThreads::EndAll() {
    for (;;) {
        DeleteRetired();
        std::size_t live;
        {
            const TQThreadSynch::TQSynchLock guard(m_lock);
            if (m_objects == 0) return;
            live = m_live.size();
        }
        while (m_queue.Stops() < live && m_queue.PostThreadStop())
            ;
        WaitForSingleObject(m_wake.get(), MissingStopsMs);
    }
}

bool PoolThreads::AwaitOthers() {
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        Object* const self = FindCalling();
        if (!self) return false;
        if (!std::exchange(self->isStopping, true)) ++m_stoppers;
    }
    TellStoppers();
    AwaitSurely({m_othersGone.get()});
    return true;
}

// Of a stopped pool: no thread is added any more, so what is true once stays true.
void PoolThreads::TellStoppers() noexcept {
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (!m_queue.IsStopped() || m_objects != m_stoppers) return;
    }
    SetSurely(m_othersGone.get());
}

}  // namespace Quellan::Corvel
