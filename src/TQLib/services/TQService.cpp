#include "TQLib/services/TQService.h"

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/services/TQServiceMgr.h"
#include "TQLib/services/internal/InsideService.h"
#include "TQLib/services/internal/ServiceHost.h"
#include "TQLib/threads/internal/GuardedStep.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr DWORD DefaultWaitHintMs = 30'000;
// What the countdown of a pending state that is reported again starts with, whatever the hint: a clamp of the
// hint between 1,000 and this, which always gives this.
constexpr DWORD RepeatedCountdownMs = 60'000;
// With less left of its countdown, a pending state that goes on has the countdown started anew.
constexpr DWORD LowCountdownMs = 10'000;

constexpr const wchar_t* MainContext = L"Running Service::RunAppServiceMain";

bool IsTransition(DWORD from, DWORD to) noexcept {
    using S = TQSvcState;
    if (from == to) return false;
    switch (to) {
        case S::Stopped:
            return true;
        case S::StartPending:
            return from == S::Stopped;
        case S::StopPending:
            return from != S::Stopped;
        case S::Running:
            return from == S::Stopped || from == S::StartPending || from == S::ContinuePending;
        case S::ContinuePending:
            return from == S::PausePending || from == S::Paused;
        case S::PausePending:
            return from != S::Stopped && from != S::Paused;
        case S::Paused:
            return from == S::Running || from == S::PausePending;
        default:
            return false;
    }
}

// For reports that a state lasts.
bool IsSame(DWORD from, DWORD to) noexcept {
    return from == to;
}

// Controls can be taken between the start and the stop.
bool TakesControls(DWORD state) noexcept {
    return state >= TQSvcState::Running && state <= TQSvcState::Paused;
}

DWORD ServiceStateOf(ProcState state) noexcept {
    switch (state) {
        case ProcState::Starting:
            return TQSvcState::StartPending;
        case ProcState::Run:
            return TQSvcState::Running;
        case ProcState::Continuing:
            return TQSvcState::ContinuePending;
        case ProcState::Pause:
            return TQSvcState::Paused;
        case ProcState::Pausing:
            return TQSvcState::PausePending;
        default:
            return TQSvcState::StopPending;
    }
}

// What a service is asked for without being asked for a value.
struct Request {
    DWORD control;
    std::optional<ProcState> state;  // to which it leads; none where there is nothing to do
    bool isEvent = false;            // it comes with data
};

constexpr Request Requests[] = {
    {TQSvcControl::Stop, ProcState::Stop},          {TQSvcControl::Shutdown, ProcState::Stop},
    {TQSvcControl::Pause, ProcState::Pause},        {TQSvcControl::Continue, ProcState::Run},
    {TQSvcControl::ParamChange, std::nullopt},      {TQSvcControl::HardwareProfileChange, std::nullopt, true},
    {TQSvcControl::PowerEvent, std::nullopt, true}, {TQSvcControl::SessionChange, std::nullopt, true},
};

const Request* RequestOf(DWORD control) noexcept {
    const auto* const found = std::ranges::find(Requests, control, &Request::control);
    return found == std::end(Requests) ? nullptr : found;
}

}  // namespace

_TQService::_TQService(bool ownProcess) : m_countdown(0), m_budget(0), m_pendingEvent(false) {
    m_record.serviceType = ownProcess ? SERVICE_WIN32_OWN_PROCESS : SERVICE_WIN32_SHARE_PROCESS;
}

_TQService::~_TQService() {
    TQServiceMgr::UnRegisterService(this);
}

TQString _TQService::DisplayName() const {
    return ServiceName();
}
TQString _TQService::LogonAccount() const {
    return {};
}
TQString _TQService::LogonPassword() {
    return {};
}
TQSvcStart _TQService::StartType() const {
    return TQSvcStart::Demand;
}
TQServiceOptions _TQService::Options() const {
    return {};
}

DWORD _TQService::PendingBudget() const {
    return BudgetMs;
}

TQServiceRecord _TQService::CurrentRecord() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_record;
}

DWORD _TQService::CurrentState() const {
    return CurrentRecord().currentState;
}

DWORD _TQService::CountdownLeft() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_countdown.Remaining();
}

bool _TQService::IsRegistered() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_isRegistered;
}

bool _TQService::RegisterHandler(ControlHandler handler) {
    const TQString name = ServiceName();
    const SERVICE_STATUS_HANDLE handle = ServiceHost::Current().RegisterHandler(name.c_str(), handler, this);
    if (!handle) return false;
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_statusHandle = handle;
    m_isRegistered = true;
    m_hasReported = false;
    return true;
}

void _TQService::UpdateStatus(DWORD state, DWORD waitHint) {
    UpdateStatus(state, waitHint, nullptr);
}

bool _TQService::UpdateStatus(DWORD state, DWORD waitHint, TransitionRule isAllowed) {
    const DWORD asked = waitHint > DefaultWaitHintMs ? waitHint : 0;
    return Report(state, waitHint, isAllowed, std::max(PendingBudget(), asked));
}

CtrlAcceptSet _TQService::AcceptedIn(DWORD state) {
    return TakesControls(state) ? Processor().CtrlsAccepted() : 0;
}

bool _TQService::Report(DWORD state, DWORD waitHint, TransitionRule isAllowed, DWORD budgetMs) {
    const CtrlAcceptSet accepted = AcceptedIn(state);
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (isAllowed && !isAllowed(m_record.currentState, state)) return false;
        Record(state, waitHint, accepted, budgetMs);
    }
    if (budgetMs != 0 && TQSvcState::IsPending(state)) m_pendingEvent.Set();
    OnStateChanged(state);
    Send();
    // What was asked for without the lock may be older than what another thread has reported meanwhile.
    if (AcceptedIn(state) != accepted) ReportAgain();
    return true;
}

void _TQService::SetExitCode(DWORD code, DWORD specificCode) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_exitCode = specificCode ? ERROR_SERVICE_SPECIFIC_ERROR : code;
    m_specificExitCode = specificCode;
}

// The exceptions that were logged do not tell of which service they were.
void _TQService::LogFailure() const {
    DWORD code;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        code = m_specificExitCode ? m_specificExitCode : m_exitCode;
    }
    if (code == 0) return;
    const TQString name = ServiceName(), text = TQSysException(code).ExcCodeString();
    const wchar_t* const strings[] = {name.c_str(), text.c_str()};
    TQEventLog::LogEvent(TQEventLog::LibrarySource, TQEventLog::ServiceFailedEvent, code, strings);
}

void _TQService::OnStateChanged(DWORD) {}

void _TQService::Record(DWORD state, DWORD waitHint, CtrlAcceptSet accepted, DWORD budgetMs) {
    const bool isPending = TQSvcState::IsPending(state);
    if (state != m_record.currentState) {
        if (state == TQSvcState::StartPending) m_exitCode = m_specificExitCode = 0;
        m_record.currentState = state;
        m_record.checkPoint = 0;
        m_record.waitHint = isPending ? waitHint : 0;
        if (isPending) m_countdown.Restart(waitHint);
        m_budget.Restart(budgetMs);
    } else if (isPending) {
        ++m_record.checkPoint;
        if (waitHint != 0) {
            m_record.waitHint = waitHint;
            m_countdown.Restart(RepeatedCountdownMs);
        } else {
            m_record.waitHint = m_countdown.Remaining();
        }
        // A sign promises no more than there will be signs for.
        if (budgetMs == 0) m_record.waitHint = std::min(m_record.waitHint, m_budget.Remaining());
    } else {
        m_record.checkPoint = 0;
        m_record.waitHint = 0;
    }
    if (m_budget.Remaining() < budgetMs) m_budget.Restart(budgetMs);
    const bool isOver = state == TQSvcState::Stopped;
    m_record.exitCode = isOver ? m_exitCode : 0;
    m_record.specificExitCode = isOver ? m_specificExitCode : 0;
    m_record.controlsAccepted = accepted;
}

// Sends what is recorded now, which may be newer than what the caller has recorded: a report of the past is
// never sent.
void _TQService::Send() {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    if (!m_isRegistered) return;
    if (m_record.currentState == TQSvcState::Stopped) {
        if (!m_hasReported) return;
        m_isRegistered = false;
    }
    // The manager may not have seen that the state was left and entered anew.
    const bool goesOn = m_hasReported && m_record.currentState == m_lastState;
    if (goesOn && m_record.checkPoint < m_lastCheckPoint) m_record.checkPoint = m_lastCheckPoint + 1;
    m_hasReported = true;
    m_lastState = m_record.currentState;
    m_lastCheckPoint = m_record.checkPoint;
    SERVICE_STATUS status{.dwServiceType = m_record.serviceType,
                          .dwCurrentState = m_record.currentState,
                          .dwControlsAccepted = m_record.controlsAccepted,
                          .dwWin32ExitCode = m_record.exitCode,
                          .dwServiceSpecificExitCode = m_record.specificExitCode,
                          .dwCheckPoint = m_record.checkPoint,
                          .dwWaitHint = m_record.waitHint};
    if (!ServiceHost::Current().SetStatus(static_cast<SERVICE_STATUS_HANDLE>(m_statusHandle), &status))
        TQSysException::ThrowLastError(L"_TQService::UpdateStatus");
}

void _TQService::ReportAgain() {
    Report(CurrentState(), 0, &IsSame, 0);
}

void _TQService::RequestTime(DWORD ms) {
    const DWORD state = CurrentState();
    if (TQSvcState::IsPending(state)) Report(state, ms, &IsSame, ms);
}

void _TQService::ReportProgress() {
    ReportLasting(PendingBudget());
}

void _TQService::ReportLasting(DWORD budgetMs) {
    const DWORD state = CurrentState();
    if (!TQSvcState::IsPending(state)) return;
    Report(state, CountdownLeft() < LowCountdownMs ? DefaultWaitHintMs : 0, &IsSame, budgetMs);
}

DWORD _TQService::MsToSign() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    const DWORD left = m_budget.Remaining();
    return TQSvcState::IsPending(m_record.currentState) && left != 0 ? std::min(left, ProgressMs) : INFINITE;
}

// The work goes on where the manager takes no sign; this state gets none any more then, so that it is logged
// once.
void _TQService::GiveSign() noexcept {
    const Outcome sign = Guarded(L"Processing Service::GiveSign", [&] { ReportLasting(0); });
    const TQThreadSynch::TQSynchLock guard(m_lock);
    if (!sign.isDone) m_budget.Restart(0);
}

TQService::TQService(TQString name, bool ownProcess) : _TQService(ownProcess), m_name(std::move(name)) {}

TQService::~TQService() = default;

TQString TQService::ServiceName() const {
    return m_name;
}

void TQService::SetState(DWORD state) {
    SetState(state, 0);
}

void TQService::SetState(DWORD state, DWORD waitHint) {
    UpdateStatus(state, waitHint == 0 ? DefaultWaitHintMs : waitHint, &IsTransition);
}

bool TQService::HandleRequest(DWORD control) {
    const Request* const request = RequestOf(control);
    if (!request) return false;
    bool isDone = true;
    const Outcome outcome = Guarded(L"Processing Service::HandleRequest", [&] {
        if (request->state) isDone = Processor().RequestState(*request->state);
    });
    return outcome.isDone && isDone;
}

bool TQService::HandleEvent(DWORD control, DWORD, const void*) {
    return HandleRequest(control);
}

bool TQService::HandleUserControl(DWORD) {
    return false;
}

DWORD TQService::ServiceHandler(DWORD control, DWORD eventType, void* eventData, void* context) {
    auto& service = *static_cast<TQService*>(static_cast<_TQService*>(context));
    bool isDone = false;
    Guarded(L"Running Service::ServiceHandler", [&] {
        const InsideService inside;
        if (const Request* const request = RequestOf(control)) {
            isDone = request->isEvent ? service.HandleEvent(control, eventType, eventData)
                                      : service.HandleRequest(control);
        } else if (control == TQSvcControl::Interrogate) {
            service.ReportAgain();
            isDone = true;
        } else if (control >= TQSvcControl::FirstOwn && control <= TQSvcControl::LastOwn) {
            isDone = service.HandleUserControl(control);
        }
    });
    return isDone ? ERROR_SUCCESS : ERROR_CALL_NOT_IMPLEMENTED;
}

void TQService::ExecuteServiceMain(const TQStringArray&) {
    Processor().RunMain(this);
    SetExitCode(Processor().ErrorCode());
}

// The end of the work is reported when the work is over, not before.
void TQService::OnProcessorChanged(ProcState state) {
    if (state != ProcState::Stop) SetState(ServiceStateOf(state));
}

// Where no service has been found that could say so: what was started has stopped.
void ReportNeverRun(const wchar_t* name, DWORD code) noexcept {
    ServiceHost& host = ServiceHost::Current();
    const SERVICE_STATUS_HANDLE handle = host.RegisterHandler(
        name, [](DWORD, DWORD, void*, void*) -> DWORD { return ERROR_CALL_NOT_IMPLEMENTED; }, nullptr);
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = SERVICE_STOPPED;
    status.dwWin32ExitCode = code;
    if (handle) host.SetStatus(handle, &status);
}

void TQService::RunAppServiceMain(DWORD argc, wchar_t** argv) {
    const wchar_t* const name = argc > 0 ? argv[0] : L"";
    bool isFound = false;
    const Outcome run = Guarded(MainContext, [&] {
        const _TQWin32Exception::Trap_SEH trap(L"TQService::RunAppServiceMain");
        const InsideService inside;
        TQStringArray arguments;
        for (DWORD i = 0; i < argc; ++i)
            arguments.Add(argv[i]);
        TQService& service = TQServiceMgr::HostedService(name);
        isFound = true;
        service.RunToEnd(arguments);
    });
    if (!isFound) ReportNeverRun(name, run.code);
}

void TQService::RunToEnd(const TQStringArray& arguments) {
    const Outcome run = Guarded(MainContext, [&] {
        if (!RegisterHandler(&ServiceHandler))
            TQSysException::ThrowLastError(L"TQService::RunAppServiceMain");
        SetState(TQSvcState::StartPending);
        ExecuteServiceMain(arguments);
    });
    // A service that has failed must not look like one that has ended well.
    if (!run.isDone) SetExitCode(run.code ? run.code : UnknownExceptionCode);
    Guarded(MainContext, [&] { LogFailure(); });
    if (!run.isDone || CurrentState() != TQSvcState::Stopped) UpdateStatus(TQSvcState::Stopped, 0);
}

}  // namespace Quellan::Corvel
