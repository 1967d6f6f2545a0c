// The worker of a service.
#pragma once

#include "TQLib/services/TQServiceStatus.h"
#include "TQLib/services/internal/Ring.h"
#include "TQLib/threads/TQThread.h"

#include <vector>

namespace Quellan::Corvel {

class _TQService;

// The states of a processor, as flags: waits take several at once. The control protocol asks for `Stop`,
// `Run` and `Pause`; the others are the ways to these.
enum class ProcState : DWORD {
    Stop = 1,
    Starting = 2,
    Run = 4,
    Continuing = 8,
    Pause = 16,
    Pausing = 32,
    Stopping = 64,
};
constexpr ProcState operator|(ProcState a, ProcState b) noexcept {
    return static_cast<ProcState>(static_cast<DWORD>(a) | static_cast<DWORD>(b));
}
constexpr bool operator&(ProcState a, ProcState b) noexcept {
    return (static_cast<DWORD>(a) & static_cast<DWORD>(b)) != 0;
}

// A control that a processor accepts, as a flag of the set; the values are the platform's.
enum class ProcControlAccept : DWORD {
    Stop = 0x01,
    PauseContinue = 0x02,
    Shutdown = 0x04,
    ParamChange = 0x08,
    HardwareProfileChange = 0x20,
    PowerEvent = 0x40,
    SessionChange = 0x80,
};
using CtrlAcceptSet = DWORD;

// The thread that does a service's work. A class derives from it and overrides `Process`, often `Prepare` and
// `Finish`:
//
//     Starting    `Prepare`
//     Run         `Process`, which comes back to `WaitForTurn` between two pieces of work
//     Pausing     `OnPause`, from within `WaitForTurn`; then Pause, in which `WaitForTurn` waits
//     Continuing  `OnContinue`, from within `WaitForTurn`; then Run
//     Stopping    requested, or `Process` has returned or thrown; `Finish`
//     Stop        over
//
// The service reports each of them, and that it goes on for as long as one of the pending states lasts. An
// exception that leaves one of the members ends the work, after `Finish` where `Prepare` had returned: it is
// logged as `TQThread` does it, and its code is the error code, and with it the exit code of the service.
//
// All public members may be called from any thread at any time. A class whose members the work uses calls
// `EndThread` first in its own destructor.
class TQLIB_API TQSvcProcessor : public TQThread {
  public:
    // Accepts stop, shutdown, and pause and continue.
    TQSvcProcessor();
    ~TQSvcProcessor() override;

    // Starts the work. False, with nothing done, where it is not over. Throws as `TQThread::Start`.
    bool StartProcessor();
    // Requests the end of the work, and waits for nothing. False where it is over.
    bool StopProcessor();
    // Requests a pause, or the end of one. True also where that is so already or on its way; false while the
    // work starts, stops or is over.
    bool Pause();
    bool Restart();
    // `TQThread`'s: not for a processor that a service runs.
    void Restart(bool suspended) override;

    [[nodiscard]] ProcState CurrentState() const;
    // Waits up to `ms` milliseconds for one of the states; false when the time is up. A state that is left
    // again at once may be missed.
    bool WaitForState(ProcState states, DWORD ms);
    // Waits for a state that is none of them.
    bool WaitForNotState(ProcState states, DWORD ms);

    [[nodiscard]] CtrlAcceptSet CtrlsAccepted() const;
    // What ended the last work: its result where that is not 0, or the code of the exception. 0 during the
    // work unless `SetState` has set it.
    [[nodiscard]] DWORD ErrorCode() const;

    // An event that is set after each change of the state. Borrowed: remove it before closing it.
    void AddChangedEvent(HANDLE event);
    // Does nothing for one that was not added. Nobody sets it any more when this returns.
    void RemoveChangedEvent(HANDLE event);

  protected:
    // Before the work: what takes time to make. By default nothing.
    virtual void Prepare();
    // The work; what it returns is the error code, 0 for success. By default it waits for the stop.
    virtual unsigned int Process(BYTEBuf& data);
    // After the work, also after one that an exception ended. By default nothing.
    virtual void Finish();
    // Before the pause and after it. By default nothing.
    virtual void OnPause();
    virtual void OnContinue();

    // For `Process`: waits up to `ms` milliseconds (0: only looks), through a whole pause where one is
    // requested. True: it is time for the next piece of work. False: a stop was requested.
    bool WaitForTurn(DWORD ms);

    // For `Prepare`, `Finish`, `OnPause` and `OnContinue` that take long, as the members of the service that
    // runs the processor (`_TQService`), but a report that is not taken is logged. Nothing without a service.
    void RequestTime(DWORD ms);
    void ReportProgress();

    // Goes to a state, for work that has its own way to it: to `Run` from `Starting` and `Continuing`, to
    // `Pause` from `Pausing`, to `Stopping` from all but `Stop`, to `Stop` from all; anything else does
    // nothing. An error code other than 0 is kept.
    void SetState(ProcState state, DWORD errorCode = 0);
    // Accepts a control from now on or no longer; the service reports it.
    void SetCtrlAllow(ProcControlAccept control, bool allow);
    // The whole set, of `ProcControlAccept`.
    void SetCtrlAllow(int controls);

    unsigned int RunWork(BYTEBuf& data) final;
    unsigned int OnStop(const BYTEBuf& data, const unsigned int& result) final;

  private:
    friend class TQService;

    bool RequestState(ProcState state);
    // Runs the work for `service`, to which all changes are told, and returns when it is over.
    void RunMain(_TQService* service);
    bool StartProcessing();

    bool WaitUntil(bool (*isReached)(ProcState state, ProcState states), ProcState states, DWORD ms);
    struct ChangedEvent {
        HANDLE event;
        bool isDue;  // to be set
    };

    void ChangeTo(ProcState state) TQ_REQUIRES(m_procLock);
    void TellOfChange();
    void SetChangedEvents() noexcept;
    bool TellService();
    void WaitUntilTold();
    void AwaitTeller();
    void SetAccepted(CtrlAcceptSet kept, CtrlAcceptSet added);
    template <class Report>
    void ReportBy(Report report);

    mutable TQThreadSynch m_procLock;
    ProcState m_procState TQ_GUARDED_BY(m_procLock) = ProcState::Stop;
    CtrlAcceptSet m_accepted TQ_GUARDED_BY(m_procLock);
    DWORD m_errorCode TQ_GUARDED_BY(m_procLock) = 0;
    bool m_hasThrown TQ_GUARDED_BY(m_procLock) = false;
    std::vector<ChangedEvent> m_changedEvents TQ_GUARDED_BY(m_procLock);
    HANDLE m_setting TQ_GUARDED_BY(m_procLock) = nullptr;  // of them, by the one thread that sets them
    _TQService* m_service TQ_GUARDED_BY(m_procLock) = nullptr;
    // Changes that the service has yet to be told of, in their order, by one thread at a time.
    Ring<ProcState> m_untold TQ_GUARDED_BY(m_procLock);
    DWORD m_teller TQ_GUARDED_BY(m_procLock) = 0;   // thread; 0: nobody
    DWORD m_waiting TQ_GUARDED_BY(m_procLock) = 0;  // threads that wait for its end

    const TQEvent m_toldEvent;     // for one of those that wait, who wakes the next
    const TQEvent m_requestEvent;  // wakes `WaitForTurn`
};

}  // namespace Quellan::Corvel
