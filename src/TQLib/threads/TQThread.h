// Threads.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/log/time/TQTime.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/threads/TQEvent.h"

namespace Quellan::Corvel {

// A thread and its work. A class derives from it and overrides `RunWork`, often `OnStart` and `OnStop`; an
// object runs its work as often as it is started, on a new thread each time. All members may be called from
// several threads at once.
//
//                      not started, ended  suspended        starting         running
//     Start            starts              starts anew      throws 1247      nothing; after `Stop` as ended
//     Resume           throws 6; nothing   starts           nothing          nothing
//     WaitForComplete  returns at once     waits            waits            waits
//     destructor       nothing             ends it unused   stops and waits  stops and waits
//
// ("Resume" of a thread that has ended does nothing.) The thread calls `OnStart`, then `RunWork`, then
// `OnStop`, each guarded: an exception that leaves one of them goes to the system event log under "TQLib", a
// library exception as 0xCFFF4001, anything else as 0xCFFF4002; its text becomes the result message; and the
// thread goes on with the next step. Structured exceptions are thrown as `_TQWin32Exception` on it
// (`Trap_SEH`).
//
// A stop is only a request: the work has to look at `Stopped` or wait for `StopEvent`. The destructor waits
// for it for as long as it takes. By then the members of derived classes are gone, so a class whose members
// the work uses calls `EndThread` first in its own destructor. The thread itself may destroy the object; it
// then ends with that step.
class TQLIB_API TQThread : public TQObject {
  public:
    TQThread();
    // With a copy of `size` bytes as the thread's data.
    TQThread(const void* data, ULONGLONG size);
    TQThread(const TQThread&) = delete;
    TQThread& operator=(const TQThread&) = delete;
    ~TQThread() override;

  protected:
    // 0 to go on; any other value ends the thread with that result, and neither of the next two is called. An
    // exception counts as 0.
    virtual unsigned int OnStart(const BYTEBuf& data);
    // Called after `RunWork` with its result, or the code of the exception that left it (0x8000FFFF where it
    // has none). Its value, or the code of its exception, is the result of the thread; by default the result
    // given.
    virtual unsigned int OnStop(const BYTEBuf& data, const unsigned int& result);
    // The work.
    virtual unsigned int RunWork(BYTEBuf& data);

  public:
    // Whether a stop was requested since the last start.
    [[nodiscard]] virtual bool Stopped() const;
    // Of the thread last started; 0 before the first.
    [[nodiscard]] virtual DWORD ID() const;
    // Whether the thread has come through `OnStart` and not yet through `OnStop`.
    [[nodiscard]] virtual bool ThreadRunning() const;

    // Starts the thread and waits for `OnStart` to return; with `suspended` returns at once, and `Resume`
    // does the rest. Throws `TQException` 1247 "Thread Start Failed - Already started." while another start
    // is under way, 995 "Thread failed to start properly." where `OnStart` refuses (the event that tells of
    // the start is then never signalled) or the thread dies in it, `TQSysException` "Thread Creation Event
    // Failed." (nothing has changed then), "Thread Creation Failed." (the thread counts as never started
    // then), and what `Resume` throws (the thread has ended then, without a step); 14 (ERROR_OUTOFMEMORY).
    virtual void Start(bool suspended = false);
    // Requests a stop; waits for nothing.
    virtual void Stop();
    // Waits up to `ms` milliseconds for the end of the thread and returns its result; 258 (WAIT_TIMEOUT) when
    // the time is up, 0 for a thread that was never started. Throws 1131 (ERROR_POSSIBLE_DEADLOCK) "A thread
    // cannot wait for its own end." on the thread itself, and "Wait on synch object failed.".
    virtual DWORD WaitForComplete(DWORD ms);
    DWORD WaitForComplete(TQTimeSpan time) { return WaitForComplete(time.TimeoutMs()); }
    // `Stop`, then `WaitForComplete`.
    virtual DWORD StopAndWait(DWORD ms);
    DWORD StopAndWait(TQTimeSpan time) { return StopAndWait(time.TimeoutMs()); }
    // `StopAndWait` without end where the thread runs, then `Start`.
    virtual void Restart(bool suspended = false);

    // Of the last run that has ended; 0 and empty during a run and before the first.
    [[nodiscard]] virtual unsigned int ResultCode() const;
    [[nodiscard]] virtual TQString ResultMessage() const;

    // Resumes a thread that was started as suspended and waits for its start as `Start` does. Gives how many
    // times the thread was suspended. Throws the platform's code, 6 (ERROR_INVALID_HANDLE) for a thread that
    // was never started.
    void Resume(DWORD* previousCount = nullptr);

    // Borrowed, until the next start; null before the first.
    [[nodiscard]] HANDLE ThreadHandle() const;
    // By the local clock; null before the first start.
    [[nodiscard]] TQTime StartTime() const;
    // Since the last start, whether the thread still runs or not.
    [[nodiscard]] TQTimeSpan RunningTime() const;
    // Of the thread last started, in user and kernel mode together. Throws the platform's code.
    [[nodiscard]] TQTimeSpan CPUTime() const;
    // For the next start: in bytes, 0 for the platform's default; whether memory is only reserved.
    void SetStackSize(DWORD size, bool reservation);

    // Whether the calling thread has an impersonation token of its own. Throws the platform's code.
    [[nodiscard]] static bool ThreadHasToken();

  protected:
    // Guards the state of the thread; never held while a step runs.
    [[nodiscard]] TQThreadSynch& LockObj() const noexcept { return m_lock; }
    // Signalled from `Stop` to the next start.
    [[nodiscard]] const TQEvent& StopEvent() const noexcept { return m_stopEvent; }
    BYTEBuf& ThreadData() noexcept { return m_data; }

    // Whether the calling thread is the one whose work this object is.
    [[nodiscard]] bool IsOwnThread() const noexcept;
    // Waits until the thread has come through `OnStart`; throws as `Start` does.
    void WaitForStartup();
    // Whether there is a thread that has not come to its end.
    [[nodiscard]] bool HasThread() const;
    // For destructors: stops the thread and waits for its end; a suspended one ends without a step. Does
    // nothing on the thread itself.
    void EndThread() noexcept;

  private:
    using ThreadHandleHolder = TQHandle<_TQKernelHandleClose>;
    enum class State { NotStarted, Creating, Suspended, Starting, Running, Ended };

    static DWORD ThreadMain(void* self);
    unsigned int RunThread();
    bool StartAfter(const ThreadHandleHolder& last, bool suspended);
    static void EndSuspended(HANDLE thread) noexcept;
    DWORD LetGo(const ThreadHandleHolder& thread, bool isSuspended);
    void AwaitStartup(const ThreadHandleHolder& startupEvent, const ThreadHandleHolder& thread);
    ThreadHandleHolder AwaitLastThread(bool evenAtWork) noexcept;
    void SetEnded(unsigned int code, TQString&& message) noexcept;

    mutable TQThreadSynch m_lock;
    State m_state TQ_GUARDED_BY(m_lock) = State::NotStarted;
    bool m_isStopRequested TQ_GUARDED_BY(m_lock) = false;
    ThreadHandleHolder m_thread TQ_GUARDED_BY(m_lock);
    DWORD m_id TQ_GUARDED_BY(m_lock) = 0;
    ThreadHandleHolder m_startupEvent
        TQ_GUARDED_BY(m_lock);  // from `Start` until the thread has come through it
    TQTime m_startTime TQ_GUARDED_BY(m_lock);
    TQTime m_startTimeUTC TQ_GUARDED_BY(m_lock);
    DWORD m_stackSize TQ_GUARDED_BY(m_lock) = 0;
    bool m_isStackReservation TQ_GUARDED_BY(m_lock) = false;
    unsigned int m_resultCode TQ_GUARDED_BY(m_lock) = 0;
    TQString m_resultMessage TQ_GUARDED_BY(m_lock);

    const TQEvent m_stopEvent;
    BYTEBuf m_data;  // the thread's alone while it runs
};

}  // namespace Quellan::Corvel
