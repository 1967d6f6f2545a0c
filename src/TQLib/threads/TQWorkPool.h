// The pool that the whole process shares.
#pragma once

#include "TQLib/threads/TQThreadPool.h"

namespace Quellan::Corvel {

// A thread of the shared pool: its items bring the function that does them.
class TQLIB_API _TQWorkPoolThread : public TQPoolThread {
  protected:
    void OnWork(BYTEBuf& data) override;
};

// One pool for all parts of a process that have work to do now and then. Each is a client of it from
// `AddClient` to `DelClient`; the first one makes the pool, and the last one stops and destroys it, so that
// nothing of it is left. What a client still has queued then is dropped.
class TQLIB_API _TQWorkPoolBase : public TQThreadPool<_TQWorkPoolThread> {
  public:
    // Does one item with the bytes that were posted, which are its own.
    using WorkFunction = void (*)(BYTEBuf& data);

    ~_TQWorkPoolBase() override;

    // The pool, for as long as the caller is a client. Throws what the making of a pool throws; the caller is
    // no client then.
    static _TQWorkPoolBase& AddClient();
    // Throws 1 (ERROR_INVALID_FUNCTION) where nobody is a client, and 1131 (ERROR_POSSIBLE_DEADLOCK) where
    // the last client asks for it on a thread of the pool, which can't wait for its own end.
    static void DelClient();
    // The pool; null while it has no clients. Only a client can rely on it.
    [[nodiscard]] static _TQWorkPoolBase* GetInstance();

    // Queues `work` with a copy of the data; otherwise as `_TQThreadPoolBase::AddWork`.
    bool AddWork(WorkFunction work, const void* data, DWORD size, DWORD requestorID = 0);

  private:
    _TQWorkPoolBase() = default;
};

}  // namespace Quellan::Corvel
