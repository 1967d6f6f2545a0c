// Thread pools.
#pragma once

#include "TQLib/log/time/TQTimeSpan.h"
#include "TQLib/text/memory/TQSmartPtr.h"
#include "TQLib/threads/TQPoolThread.h"

#include <memory>

namespace Quellan::Corvel {

class _TQThreadPoolImpl;

// A queue of work and the threads that do it, which come and go with the load. `TQThreadPool` below makes a
// usable class of it.
//
// An item is a copy of the bytes that the poster gives. It can be posted for a requestor
// (`GetNewRequestorID`), whose items can be dropped on their own, or anonymously. All are handed out in the
// order of their posting. Items that were handed out run side by side, those of one requestor too.
//
//                      in use                          after `StopThreads`
//     AddWork          queues; makes a thread          throws 0x80000015
//     ClearAll         drops what waits                nothing
//     StopThreads      stops (see there)               waits for what is left, then nothing
//     destructor       stops                           nothing more
//
// All public members may be called from any thread at any time, those of the pool included; a pool must not
// be destroyed on one of its own threads. A class that derives from it calls `CloseUp` first in its own
// destructor.
//
// The pool object is a thread itself: one that deletes the threads which have left, makes up for those that
// could not be made and ends the pool. It runs from the first post on.
class TQLIB_API _TQThreadPoolBase : public TQThread {
  public:
    // Data, for whom it is, and its number among those that `AllocWorkData` made.
    struct PoolWorkItem {
        BYTEBuf data;
        DWORD requestorID = 0;
        DWORD itemID = 0;
    };
    using WorkItemPtr = TQSmartPtr<PoolWorkItem, _TQRefPtr<PoolWorkItem>>;

    // What a pool tells of a failure.
    struct ThreadErr {
        unsigned int code;
        const wchar_t* message;
        TQPoolThread* thread;  // null where there is none: a thread could not be made
        const BYTEBuf* work;   // the item at work, as its handler left it; null without one
    };

    struct ThreadLimits {
        DWORD minimum;
        DWORD maximum;
    };
    // How many threads a pool keeps and may have on a machine with so many processors when it is made for
    // `requested`, where 0 and 1 leave it to the pool. A maximum below the minimum is the maximum.
    [[nodiscard]] static ThreadLimits LimitsFor(DWORD processors, DWORD requested) noexcept;

    ~_TQThreadPoolBase() override;

    // Queues a copy of `size` bytes; 0 as requestor posts anonymously. A post that finds no waiting thread
    // makes one, up to the maximum, and returns when its `OnStart` has. True. Throws 0x80000015 "Thread pool
    // has been stopped - no further work can be done on the pool.", "Posting of the thread pool work
    // failed.", 1168 (ERROR_NOT_FOUND) for a requestor that the pool does not know, 14 (ERROR_OUTOFMEMORY),
    // and where the pool has no thread and can't make one what `TQThread::Start` throws; nothing is queued
    // then.
    bool AddWork(const void* data, DWORD size, DWORD requestorID = 0);

    // A new requestor, never 0. It is known until `ReleaseRequestorID`. Throws 14 (ERROR_OUTOFMEMORY).
    DWORD GetNewRequestorID();
    // Drops the requestor's items and forgets it.
    void ReleaseRequestorID(DWORD requestorID);
    // Drops the requestor's items that no thread has taken; a requestor that the pool does not know has none.
    void ClearRequestorItems(DWORD requestorID);
    // Drops every item that no thread has taken.
    void ClearAll();

    // Drops what no thread has taken, lets every item at work come to its end, and returns when all threads
    // of the pool have ended, its own included. No item is taken from the pool afterwards.
    //
    // Called by a handler of the pool it can't wait for that handler, nor for others that wait here too: it
    // returns when all other pool threads have ended, and the calling one ends with its item.
    void StopThreads();

    // Items that no thread has taken.
    [[nodiscard]] DWORD WorkCount() const;
    // Threads that wait for an item, those that do something else, and both.
    [[nodiscard]] DWORD ThreadsWaiting() const;
    [[nodiscard]] DWORD ThreadsBusy() const;
    [[nodiscard]] DWORD ThreadsAllocated() const;
    [[nodiscard]] DWORD MaxThreads() const;

  protected:
    // With Packet, what came was no item and went to `OnPortPacket`.
    enum class GetWorkResult { Work, TimeOut, Stop, Packet };

    // With a copy of `size` bytes as the pool data, which each thread gets. For `maxThreads` see `LimitsFor`.
    // Throws "Completion port could not be created for thread pool." and "Wakeup event could not be created
    // for thread pool." with the platform's code, and 14 (ERROR_OUTOFMEMORY) "Allocation of thread pool
    // requestor ID queue failed".
    _TQThreadPoolBase(const void* data, ULONGLONG size, DWORD maxThreads);

    bool _PostWork(const void* data, DWORD size, DWORD requestorID);
    // Waits up to `ms` milliseconds for an item and moves it to `data`. Only on a pool thread. Throws
    // "Getting asynch queue work data failed.".
    GetWorkResult _GetWork(BYTEBuf& data, DWORD ms);
    // An item with a copy of the data and the next item ID.
    WorkItemPtr AllocWorkData(const void* data, DWORD size, DWORD requestorID);

    // Counts the calling thread as busy or as waiting; it has to be the other before.
    void AdjustBusy(bool busy) noexcept;
    // Counts threads as allocated or no longer; one more counts as waiting, as one less has to.
    void AdjustAllocated(bool add, DWORD count) noexcept;
    // Counts an object whose completions come to the port. While there are any no thread retires, as the
    // requests that a thread has made end with it, and the pool sees to it that one waits, up to the maximum.
    // The first one makes a thread where the pool has none, and throws as `AddWork` where that fails; the
    // object is not counted then.
    void AdjustPortObjects(bool add);
    // A packet of the port that is none of the pool's: the completion of a request, or what somebody posted
    // there. With its key, byte count and record, and the code of a request that failed, 0 otherwise. It is
    // no item: no counter of work holds it, and clearing the pool does not drop it. On a pool thread, or
    // where the pool is stopped or destroyed on the thread that empties the port, while the derived class's
    // `CloseUp` runs at the latest; what comes after that is lost. What leaves it is reported like a failure
    // of a handler. It does nothing here: the record is the derived class's.
    //
    // A derived class gives its objects keys other than 0. A packet with the key 0 has to have a null record
    // or one that is there to be read.
    virtual void OnPortPacket(ULONGLONG key, DWORD bytes, void* record, DWORD error);
    // Whether a pool thread may retire as far as the pool's work goes.
    [[nodiscard]] bool CanStop() const;
    // The calling thread's object where it is a thread of this pool, else null.
    TQPoolThread* CallingPoolThread();
    // Lets the pool's own thread look at the threads.
    void WakeThread() const noexcept;
    // Stops the pool, gives port and event back and takes the registration for the library's exit back.
    void CloseUp() noexcept;

    // How long a pool thread waits for an item before it looks whether it is still needed: 100 seconds.
    [[nodiscard]] virtual DWORD IdleWaitMs() const;
    // For how long the pool has been idle: since the first thread waited in vain, zero where none has since
    // an item was last taken.
    [[nodiscard]] virtual TQTimeSpan IdleTime() const;

    BYTEBuf& PoolData() noexcept { return ThreadData(); }
    // Borrowed, until `CloseUp`. It may be made by the first call; null where that fails.
    [[nodiscard]] HANDLE Port() const noexcept;

  private:
    friend class TQPoolThread;
    friend class PoolThreads;
    friend class _TQThreadPoolImpl;

    // A new object for a pool thread, owned by the pool.
    virtual TQPoolThread* AllocThread() = 0;
    // Tells of a failure on one of the pool's threads. On the thread that failed, inside its catch clause.
    virtual void ReportError(const ThreadErr& error) = 0;

    // The thread of the pool itself.
    virtual void OnWorkThreadWake();
    unsigned int RunWork(BYTEBuf& data) override;
    void Stop() override;

    // The work of one of its threads.
    void RunPoolThread(TQPoolThread* thread);

    const std::unique_ptr<_TQThreadPoolImpl> m_impl;
};

// Writes failures of pools to the system event log under "TQLib": 0xCFFF4001, but 0xCFFF4002 for structured
// exceptions and those of unknown kind, as a thread does for its steps.
class TQLIB_API TQThreadPoolExceptionHandler {
  public:
    TQThreadPoolExceptionHandler() = delete;

    // `threadID` is the thread that failed, which is the calling one, or 0 where a thread could not be made.
    // Throws nothing.
    static void ReportException(DWORD threadID, unsigned int code, const wchar_t* message, const void* work,
                                ULONGLONG workSize, const void* poolData, ULONGLONG poolDataSize) noexcept;
};

// A pool of threads of the class `ThreadT`, derived from `TQPoolThread`, with up to `N` of them (see
// `LimitsFor`). Failures go to `ExceptionHandlerT::ReportException`, a static function with the arguments of
// `TQThreadPoolExceptionHandler`'s, which may be called from several threads at once.
template <class ThreadT, class ExceptionHandlerT = TQThreadPoolExceptionHandler, DWORD N = 0>
class TQThreadPool : public _TQThreadPoolBase {
  public:
    TQThreadPool() : TQThreadPool(nullptr, 0) {}
    // With a copy of `size` bytes as the pool data.
    TQThreadPool(const void* data, ULONGLONG size) : _TQThreadPoolBase(data, size, N) {}
    ~TQThreadPool() override { CloseUp(); }

  private:
    TQPoolThread* AllocThread() override { return new ThreadT; }
    void ReportError(const ThreadErr& error) override {
        ExceptionHandlerT::ReportException(error.thread ? error.thread->ID() : 0, error.code, error.message,
                                           error.work ? error.work->Data() : nullptr,
                                           error.work ? error.work->Bytes() : 0, PoolData().Data(),
                                           PoolData().Bytes());
    }
};

}  // namespace Quellan::Corvel
