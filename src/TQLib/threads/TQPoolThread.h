// The threads of a pool.
#pragma once

#include "TQLib/threads/TQThread.h"

#include <atomic>

namespace Quellan::Corvel {

class _TQThreadPoolBase;

// A thread that does a pool's work. An application derives its own class and overrides `OnWork`, and where it
// likes `OnStart` and `OnStop`, which run once on each thread; the pool makes the objects, starts them and
// deletes them when their threads have ended. `OnStart` gets the pool data; one that refuses, or that does
// not return, holds up the poster that the thread is made for.
class TQLIB_API TQPoolThread : public TQThread {
  public:
    TQPoolThread();
    ~TQPoolThread() override;

    // Gives the thread to a pool, which must outlive it, with a copy of the pool data. Before it is started.
    void AssignPool(_TQThreadPoolBase* pool);
    // Whether the thread takes further items; without it, it leaves its pool after the item at work.
    void SetReadyForWork(bool ready) noexcept { m_isReadyForWork = ready; }
    [[nodiscard]] bool ReadyForWork() const noexcept { return m_isReadyForWork; }
    void Stop() override;

  protected:
    // One item: the bytes that were posted, which are the handler's to change. What leaves it is reported by
    // the pool, and the thread takes the next item.
    virtual void OnWork(BYTEBuf& data) = 0;
    unsigned int RunWork(BYTEBuf& data) final;
    // Posts to the thread's own pool, for no requestor; throws as `_TQThreadPoolBase::AddWork` does.
    void PostPoolWork(const void* data, DWORD size);

  private:
    friend class _TQThreadPoolBase;
    friend class PoolThreads;

    _TQThreadPoolBase* m_pool = nullptr;
    std::atomic<bool> m_isReadyForWork = false;
};

}  // namespace Quellan::Corvel
