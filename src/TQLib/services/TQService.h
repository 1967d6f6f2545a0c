// Services that this process hosts.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/services/TQServiceStatus.h"
#include "TQLib/services/TQSvcProcessor.h"

namespace Quellan::Corvel {

// What a service is to the service manager: names, the record of its status and its way to the manager. The
// members may be called from any thread.
class TQLIB_API _TQService : public TQObject {
  public:
    _TQService(const _TQService&) = delete;
    _TQService& operator=(const _TQService&) = delete;
    // Takes the service out of `TQServiceMgr`. It must not be running.
    ~_TQService() override;

    [[nodiscard]] virtual TQString ServiceName() const = 0;
    virtual TQSvcProcessor& Processor() = 0;

    // What `TQServiceMgr::Install` uses: the name for people (by default the name), the account as which the
    // service runs (empty: the system's own) and its password (by default empty), when it is started (by
    // default on demand), and the rest.
    [[nodiscard]] virtual TQString DisplayName() const;
    [[nodiscard]] virtual TQString LogonAccount() const;
    virtual TQString LogonPassword();
    [[nodiscard]] virtual TQSvcStart StartType() const;
    [[nodiscard]] virtual TQServiceOptions Options() const;

    [[nodiscard]] TQServiceRecord CurrentRecord() const;
    [[nodiscard]] DWORD CurrentState() const;
    // Of the countdown that runs while a pending state lasts, in milliseconds.
    [[nodiscard]] DWORD CountdownLeft() const;
    // From `RegisterHandler` to the final report of `Stopped`.
    [[nodiscard]] bool IsRegistered() const;

    // While a pending state lasts and its processor runs, it is reported once more every `ProgressMs`, but for
    // no longer than a budget, its wait hints counted: a service that hangs is not to look alive for ever. The
    // budget begins with the state, and anew with each report that the service itself makes of it; a wait hint
    // of more than 30 s in that is budget too.
    static constexpr DWORD ProgressMs = 1000;
    // In milliseconds; INFINITE: no limit. By default `BudgetMs`.
    [[nodiscard]] virtual DWORD PendingBudget() const;
    static constexpr DWORD BudgetMs = 120'000;
    // What takes longer asks for its time (milliseconds, from now on), which is the wait hint of the report
    // too, or says from time to time that it has come further. Both do nothing where no state is pending, and
    // throw as `UpdateStatus`.
    void RequestTime(DWORD ms);
    void ReportProgress();

  protected:
    using ControlHandler = DWORD (*)(DWORD control, DWORD eventType, void* eventData, void* context);
    // Whether a transition is allowed.
    using TransitionRule = bool (*)(DWORD from, DWORD to) noexcept;

    // Whether the service has a process of its own or shares it with others.
    explicit _TQService(bool ownProcess);

    // Registers the handler of controls, with this object as its context: from now on status is sent to the
    // manager. False, with the code as the last error, where the manager refuses.
    bool RegisterHandler(ControlHandler handler);

    // Records the state and reports it. A pending state has its check point advanced when it is reported
    // again; with a wait hint (milliseconds) the countdown then starts anew with 60,000 ms, whatever the
    // hint, and without one the time left is reported. Throws `TQSysException` with the platform's code where
    // the report cannot be sent; it is recorded then.
    //
    // Nothing is sent after the first report of `Stopped`, nor is that the first report. The processor's
    // `CtrlsAccepted` are asked for before, without the lock.
    void UpdateStatus(DWORD state, DWORD waitHint);
    // The same, unless the rule forbids the way from the current state to this one: false then.
    bool UpdateStatus(DWORD state, DWORD waitHint, TransitionRule isAllowed);

    // What the report of `Stopped` will say; a specific code makes the exit code 1066
    // (ERROR_SERVICE_SPECIFIC_ERROR). Start pending sets both to 0.
    void SetExitCode(DWORD code, DWORD specificCode = 0);
    // Logs it to the system event log (0xCFFF4010), if there is one.
    void LogFailure() const;

    // Called between the recording and the sending of a state, without the lock. By default nothing.
    virtual void OnStateChanged(DWORD state);
    // Called for each change of the processor while it runs for this service, one after the other.
    virtual void OnProcessorChanged(ProcState state) = 0;
    // Reports the current state once more.
    void ReportAgain();

    [[nodiscard]] TQThreadSynch& LockObj() const noexcept { return m_lock; }

  private:
    friend class TQSvcProcessor;

    CtrlAcceptSet AcceptedIn(DWORD state);
    // What is left of the budget of a pending state is no less than `budgetMs` afterwards.
    bool Report(DWORD state, DWORD waitHint, TransitionRule isAllowed, DWORD budgetMs);
    void Record(DWORD state, DWORD waitHint, CtrlAcceptSet accepted, DWORD budgetMs) TQ_REQUIRES(m_lock);
    void Send();
    // Of the next sign that a pending state lasts; INFINITE where none is due.
    void ReportLasting(DWORD budgetMs);
    [[nodiscard]] DWORD MsToSign() const;
    void GiveSign() noexcept;

    mutable TQThreadSynch m_lock;
    TQServiceRecord m_record TQ_GUARDED_BY(m_lock);
    DWORD m_exitCode TQ_GUARDED_BY(m_lock) = 0;
    DWORD m_specificExitCode TQ_GUARDED_BY(m_lock) = 0;
    void* m_statusHandle TQ_GUARDED_BY(m_lock) = nullptr;
    bool m_isRegistered TQ_GUARDED_BY(m_lock) = false;
    bool m_hasReported TQ_GUARDED_BY(m_lock) = false;
    DWORD m_lastState TQ_GUARDED_BY(m_lock) = 0;  // as reported, as is the next
    DWORD m_lastCheckPoint TQ_GUARDED_BY(m_lock) = 0;
    TQCountdownTimer m_countdown TQ_GUARDED_BY(m_lock);
    TQCountdownTimer m_budget TQ_GUARDED_BY(m_lock);
    const TQEvent m_pendingEvent;  // set when signs become due
};

// A service of this process. A class derives from it and gives it its processor, or overrides
// `ExecuteServiceMain`; the program registers an object of it (`TQServiceMgr::RegisterService`) and calls
// `TQServiceApp::Run`.
//
// The manager starts it on a thread of its own, which runs `ExecuteServiceMain`. An exception that leaves it
// is logged, and its code is the exit code in the report of `Stopped`, as is the error code of the processor.
// Other services of the process go on.
//
// What happens to a request for a state, by the current one ("yes" is reported, "-" ignored):
//
//     to                stopped  start p.  stop p.  running  continue p.  pause p.  paused
//     1 stopped            -       yes       yes      yes       yes         yes      yes
//     2 start pending     yes       -         -        -         -           -        -
//     3 stop pending       -       yes        -       yes       yes         yes      yes
//     4 running           yes      yes        -        -        yes          -        -
//     5 continue pending   -        -         -        -         -          yes      yes
//     6 pause pending      -       yes       yes      yes       yes          -        -
//     7 paused             -        -         -       yes        -          yes       -
class TQLIB_API TQService : public _TQService {
  public:
    // The name under which it is installed.
    explicit TQService(TQString name, bool ownProcess = true);
    ~TQService() override;

    [[nodiscard]] TQString ServiceName() const override;

  protected:
    // Reports the state where the table allows it. A pending state without a wait hint (milliseconds) gets
    // one of 30,000; the others have none. Throws as `UpdateStatus`.
    void SetState(DWORD state);
    void SetState(DWORD state, DWORD waitHint);

    // A control, on the dispatcher's thread; false for one that is not implemented or that the service can't
    // follow now. By default stop and shutdown stop the processor, pause and continue pause it and end that,
    // and changes of parameters, hardware profile, power and session are accepted without more.
    virtual bool HandleRequest(DWORD control);
    // A change of hardware profile, power or session, with what the platform says of it, borrowed; on Linux
    // nothing. By default `HandleRequest`.
    virtual bool HandleEvent(DWORD control, DWORD eventType, const void* eventData);
    // One of the application's own controls, 128 to 255. By default false.
    virtual bool HandleUserControl(DWORD control);

    // The work of the service, from its start to its end; `arguments` are what it was started with, its name
    // first. The state is start pending. By default the processor runs, and the states of the service are
    // its.
    virtual void ExecuteServiceMain(const TQStringArray& arguments);

    void OnProcessorChanged(ProcState state) override;

    // What the manager calls for each service that it starts.
    static void RunAppServiceMain(DWORD argc, wchar_t** argv);

  private:
    friend class TQServiceMgr;

    // 0, or 120 (ERROR_CALL_NOT_IMPLEMENTED).
    static DWORD ServiceHandler(DWORD control, DWORD eventType, void* eventData, void* context);
    void RunToEnd(const TQStringArray& arguments);

    const TQString m_name;
};

}  // namespace Quellan::Corvel
