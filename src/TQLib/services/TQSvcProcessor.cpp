#include "TQLib/services/TQSvcProcessor.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/services/TQService.h"
#include "TQLib/text/memory/internal/Translated.h"
#include "TQLib/threads/internal/GuardedStep.h"

#include <algorithm>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr CtrlAcceptSet FirstAccepted = static_cast<CtrlAcceptSet>(ProcControlAccept::Stop) |
                                        static_cast<CtrlAcceptSet>(ProcControlAccept::PauseContinue) |
                                        static_cast<CtrlAcceptSet>(ProcControlAccept::Shutdown);

// The ways that the work goes by itself.
bool IsOwnWay(ProcState from, ProcState to) noexcept {
    switch (to) {
        case ProcState::Run:
            return (ProcState::Starting | ProcState::Continuing) & from;
        case ProcState::Pause:
            return from == ProcState::Pausing;
        case ProcState::Stopping:
            return from != ProcState::Stop && from != ProcState::Stopping;
        case ProcState::Stop:
            return from != ProcState::Stop;
        default:
            return false;
    }
}

}  // namespace

TQSvcProcessor::TQSvcProcessor() : m_accepted(FirstAccepted), m_toldEvent(false), m_requestEvent(false) {}

TQSvcProcessor::~TQSvcProcessor() {
    EndThread();
}

bool TQSvcProcessor::StartProcessor() {
    return StartProcessing();
}

bool TQSvcProcessor::StopProcessor() {
    return RequestState(ProcState::Stop);
}

bool TQSvcProcessor::Pause() {
    return RequestState(ProcState::Pause);
}

bool TQSvcProcessor::Restart() {
    return RequestState(ProcState::Run);
}

void TQSvcProcessor::Restart(bool suspended) {
    TQThread::Restart(suspended);
}

ProcState TQSvcProcessor::CurrentState() const {
    const TQThreadSynch::TQSynchLock guard(m_procLock);
    return m_procState;
}

bool TQSvcProcessor::WaitForState(ProcState states, DWORD ms) {
    return WaitUntil([](ProcState state, ProcState wanted) { return state & wanted; }, states, ms);
}

bool TQSvcProcessor::WaitForNotState(ProcState states, DWORD ms) {
    return WaitUntil([](ProcState state, ProcState unwanted) { return !(state & unwanted); }, states, ms);
}

bool TQSvcProcessor::WaitUntil(bool (*isReached)(ProcState, ProcState), ProcState states, DWORD ms) {
    const TQEvent changed(false);
    const TQCountdownTimer left(ms);
    // Added before the first look, so that no change is missed.
    AddChangedEvent(changed.Handle());
    struct Removal {
        TQSvcProcessor& processor;
        HANDLE event;
        ~Removal() { processor.RemoveChangedEvent(event); }
    };
    const Removal removal{*this, changed.Handle()};
    while (!isReached(CurrentState(), states))
        if (!changed.Wait(left.Remaining())) return isReached(CurrentState(), states);
    return true;
}

CtrlAcceptSet TQSvcProcessor::CtrlsAccepted() const {
    const TQThreadSynch::TQSynchLock guard(m_procLock);
    return m_accepted;
}

DWORD TQSvcProcessor::ErrorCode() const {
    const TQThreadSynch::TQSynchLock guard(m_procLock);
    return m_errorCode;
}

void TQSvcProcessor::AddChangedEvent(HANDLE event) {
    Translated(L"TQSvcProcessor::AddChangedEvent", [&] {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        m_changedEvents.push_back({event, false});
    });
}

void TQSvcProcessor::RemoveChangedEvent(HANDLE event) {
    for (bool isSetting = true; isSetting;) {
        {
            const TQThreadSynch::TQSynchLock guard(m_procLock);
            const auto found = std::ranges::find(m_changedEvents, event, &ChangedEvent::event);
            if (found != m_changedEvents.end()) m_changedEvents.erase(found);
            isSetting = event && m_setting == event;
        }
        if (isSetting) Sleep(InsistAgainMs);
    }
}

void TQSvcProcessor::Prepare() {}

unsigned int TQSvcProcessor::Process(BYTEBuf&) {
    while (WaitForTurn(INFINITE)) {
    }
    return 0;
}

void TQSvcProcessor::Finish() {}
void TQSvcProcessor::OnPause() {}
void TQSvcProcessor::OnContinue() {}

bool TQSvcProcessor::WaitForTurn(DWORD ms) {
    const TQCountdownTimer left(ms);
    const HANDLE events[] = {StopEvent().Handle(), m_requestEvent.Handle()};
    // A pause that is taken back before it has begun is none.
    bool hasPaused = false;
    for (;;) {
        const ProcState state = CurrentState();
        if (Stopped() || ((ProcState::Stopping | ProcState::Stop) & state)) return false;
        if (state == ProcState::Pausing) {
            hasPaused = true;
            OnPause();
            SetState(ProcState::Pause);
        } else if (state == ProcState::Continuing) {
            if (hasPaused) OnContinue();
            hasPaused = false;
            SetState(ProcState::Run);
        } else {
            const DWORD waitMs = state == ProcState::Pause ? INFINITE : left.Remaining();
            const DWORD result = WaitForMultipleObjects(2, events, FALSE, waitMs);
            if (result == WAIT_FAILED) TQSysException::ThrowLastError(L"TQSvcProcessor::WaitForTurn");
            if (result == WAIT_TIMEOUT) return true;
        }
    }
}

void TQSvcProcessor::SetState(ProcState state, DWORD errorCode) {
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        if (errorCode != 0) m_errorCode = errorCode;
        if (!IsOwnWay(m_procState, state)) return;
        ChangeTo(state);
    }
    TellOfChange();
}

void TQSvcProcessor::SetCtrlAllow(ProcControlAccept control, bool allow) {
    const auto flag = static_cast<CtrlAcceptSet>(control);
    SetAccepted(~flag, allow ? flag : 0);
}

void TQSvcProcessor::SetCtrlAllow(int controls) {
    SetAccepted(0, static_cast<CtrlAcceptSet>(controls));
}

void TQSvcProcessor::SetAccepted(CtrlAcceptSet kept, CtrlAcceptSet added) {
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        m_accepted = (m_accepted & kept) | added;
    }
    ReportBy([](_TQService& service) { service.ReportAgain(); });
}

void TQSvcProcessor::RequestTime(DWORD ms) {
    // For the state that is told of, not for the one before.
    WaitUntilTold();
    ReportBy([ms](_TQService& service) { service.RequestTime(ms); });
}

void TQSvcProcessor::ReportProgress() {
    WaitUntilTold();
    ReportBy([](_TQService& service) { service.ReportProgress(); });
}

// A manager that takes no reports does not stop the work.
template <class Report>
void TQSvcProcessor::ReportBy(Report report) {
    _TQService* service;
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        service = m_service;
    }
    if (service) Guarded(L"Processing SvcProcessor::Report", [&] { report(*service); });
}

unsigned int TQSvcProcessor::RunWork(BYTEBuf& data) {
    // A stop requested during the start of the thread was forgotten by it.
    if (CurrentState() == ProcState::Stopping) Stop();
    unsigned int result;
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        m_hasThrown = true;  // until it is known that nothing was
    }
    Prepare();
    SetState(ProcState::Run);
    try {
        result = Process(data);
    } catch (...) {
        SetState(ProcState::Stopping);
        Guarded(L"Processing SvcProcessor::Finish", [&] { Finish(); });
        throw;
    }
    SetState(ProcState::Stopping);
    Finish();
    const TQThreadSynch::TQSynchLock guard(m_procLock);
    m_hasThrown = false;
    return result;
}

unsigned int TQSvcProcessor::OnStop(const BYTEBuf&, const unsigned int& result) {
    unsigned int code = result;
    {
        // Work that has failed must not look like work that has ended well.
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        if (m_hasThrown && code == 0) code = UnknownExceptionCode;
    }
    SetState(ProcState::Stop, code);
    return code;
}

bool TQSvcProcessor::RequestState(ProcState state) {
    bool isStop = false, isOver = false;
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        const ProcState from = m_procState;
        switch (state) {
            case ProcState::Stop:
                isOver = from == ProcState::Stop;
                if (isOver || from == ProcState::Stopping) break;
                isStop = true;
                ChangeTo(ProcState::Stopping);
                break;
            case ProcState::Pause:
                if ((ProcState::Pause | ProcState::Pausing) & from) return true;
                if (from != ProcState::Run) return false;
                ChangeTo(ProcState::Pausing);
                break;
            case ProcState::Run:
                if ((ProcState::Run | ProcState::Continuing) & from) return true;
                if (!((ProcState::Pause | ProcState::Pausing) & from)) return false;
                ChangeTo(ProcState::Continuing);
                break;
            default:
                return false;
        }
    }
    TellOfChange();
    if (isStop) Stop();
    SetSurely(m_requestEvent.Handle());
    // Who has sent a control finds the service on its way when the handler returns.
    WaitUntilTold();
    return !isOver;
}

void TQSvcProcessor::RunMain(_TQService* service) {
    struct Binding {
        TQSvcProcessor& processor;
        ~Binding() {
            const TQThreadSynch::TQSynchLock guard(processor.m_procLock);
            processor.m_service = nullptr;
        }
    };
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        if (m_procState != ProcState::Stop)
            throw TQException(ERROR_SERVICE_ALREADY_RUNNING,
                              L"The processor of the service is at work already.");
        m_service = service;
    }
    const Binding binding{*this};
    StartProcessing();
    const HANDLE events[] = {ThreadHandle(), service->m_pendingEvent.Handle()};
    for (;;) {
        const DWORD result = WaitForMultipleObjects(2, events, FALSE, service->MsToSign());
        if (result == WAIT_OBJECT_0) break;
        if (result == WAIT_TIMEOUT) service->GiveSign();
        // The service must not be left while its work goes on.
        if (result == WAIT_FAILED) Sleep(_TQService::ProgressMs);
    }
    // Somebody may still be telling of a state that is over by now.
    AwaitTeller();
}

bool TQSvcProcessor::StartProcessing() {
    {
        const TQThreadSynch::TQSynchLock guard(m_procLock);
        if (m_procState != ProcState::Stop) return false;
        m_errorCode = 0;
        m_hasThrown = false;
        ChangeTo(ProcState::Starting);
    }
    TellOfChange();
    try {
        // The thread of the last work may still be on its way to its end.
        WaitForComplete(INFINITE);
        Start();
    } catch (const _TQWin32Exception& failure) {
        SetState(ProcState::Stop, failure.ErrCode());
        throw;
    }
    return true;
}

void TQSvcProcessor::ChangeTo(ProcState state) {
    if (m_service) {
        m_untold.ReserveOne();
        m_untold.Push(state);
    }
    m_procState = state;
    for (ChangedEvent& changed : m_changedEvents)
        changed.isDue = true;
}

// Who has changed the state does it next, without the lock.
void TQSvcProcessor::TellOfChange() {
    SetChangedEvents();
    TellService();
}

// By one thread at a time: another one leaves what is due to it.
void TQSvcProcessor::SetChangedEvents() noexcept {
    for (HANDLE event = nullptr;;) {
        {
            const TQThreadSynch::TQSynchLock guard(m_procLock);
            if (m_setting != event) return;
            const auto due = std::ranges::find(m_changedEvents, true, &ChangedEvent::isDue);
            const bool isDone = due == m_changedEvents.end();
            m_setting = event = isDone ? nullptr : due->event;
            if (isDone) return;
            due->isDue = false;
        }
        SetSurely(event);
    }
}

// Unless it is this thread that tells.
void TQSvcProcessor::WaitUntilTold() {
    if (!TellService()) AwaitTeller();
}

void TQSvcProcessor::AwaitTeller() {
    for (bool isWaiting = false;;) {
        {
            const TQThreadSynch::TQSynchLock guard(m_procLock);
            if (m_teller == 0) {
                if (isWaiting) --m_waiting;
                if (m_waiting == 0) return;
                break;
            }
            if (!std::exchange(isWaiting, true)) ++m_waiting;
        }
        AwaitSurely({m_toldEvent.Handle()});
    }
    SetSurely(m_toldEvent.Handle());
}

// Changes reach the service in their order, and one at a time: whoever finds another thread at it leaves the
// telling to that one; false then.
bool TQSvcProcessor::TellService() {
    for (bool isFirst = true;; isFirst = false) {
        _TQService* service;
        ProcState state;
        {
            const TQThreadSynch::TQSynchLock guard(m_procLock);
            if (isFirst && m_teller != 0) return m_teller == GetCurrentThreadId();
            if (m_untold.IsEmpty()) {
                m_teller = 0;
                if (m_waiting == 0) return true;
                break;
            }
            m_teller = GetCurrentThreadId();
            service = m_service;
            state = m_untold.Pop();
        }
        if (service)
            Guarded(L"Processing SvcProcessor::SetState", [&] { service->OnProcessorChanged(state); });
    }
    SetSurely(m_toldEvent.Handle());
    return true;
}

}  // namespace Quellan::Corvel
