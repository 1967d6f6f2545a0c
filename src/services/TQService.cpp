#include "services/TQService.h"

#include "core/TQException.h"
#include "platform/Win32.h"
#include "services/TQServiceMgr.h"
#include "services/internal/ServiceHost.h"
#include "threads/internal/GuardedStep.h"

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

}  // namespace

_TQService::_TQService(bool ownProcess) : m_countdown(0) {
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

TQServiceRecord _TQService::Status() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_record;
}

DWORD _TQService::CurrentState() const {
    return Status().currentState;
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
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (isAllowed && !isAllowed(m_record.currentState, state)) return false;
        Record(state, waitHint);
    }
    OnStateChanged(state);
    Send();
    return true;
}

void _TQService::SetExitCode(DWORD code, DWORD specificCode) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_exitCode = specificCode ? ERROR_SERVICE_SPECIFIC_ERROR : code;
    m_specificExitCode = specificCode;
}

void _TQService::OnStateChanged(DWORD) {}

void _TQService::Record(DWORD state, DWORD waitHint) {
    const bool isPending = TQSvcState::IsPending(state);
    if (state != m_record.currentState) {
        if (state == TQSvcState::StartPending) m_exitCode = m_specificExitCode = 0;
        m_record.currentState = state;
        m_record.checkPoint = 0;
        m_record.waitHint = isPending ? waitHint : 0;
        if (isPending) m_countdown.Restart(waitHint);
    } else if (isPending) {
        ++m_record.checkPoint;
        if (waitHint != 0) {
            m_record.waitHint = waitHint;
            m_countdown.Restart(RepeatedCountdownMs);
        } else {
            m_record.waitHint = m_countdown.Remaining();
        }
    } else {
        m_record.checkPoint = 0;
        m_record.waitHint = 0;
    }
    const bool isOver = state == TQSvcState::Stopped;
    m_record.exitCode = isOver ? m_exitCode : 0;
    m_record.specificExitCode = isOver ? m_specificExitCode : 0;
    m_record.controlsAccepted = TakesControls(state) ? Processor().CtrlsAccepted() : 0;
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

// A state is reported anew only while it lasts.
void _TQService::ReportAgain() {
    const DWORD state = CurrentState();
    UpdateStatus(state, 0, [](DWORD from, DWORD to) noexcept { return from == to; });
}

void _TQService::ReportProgress() {
    const TQServiceRecord record = Status();
    if (!TQSvcState::IsPending(record.currentState)) return;
    const DWORD waitHint = CountdownLeft() < LowCountdownMs ? DefaultWaitHintMs : 0;
    UpdateStatus(record.currentState, waitHint, [](DWORD from, DWORD to) noexcept { return from == to; });
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
    bool isDone = false;
    TQString message;
    Guarded(L"Processing Service::HandleRequest", message, [&] {
        switch (control) {
            case TQSvcControl::Stop:
            case TQSvcControl::Shutdown:
                isDone = Processor().RequestState(ProcState::Stop);
                break;
            case TQSvcControl::Pause:
                isDone = Processor().RequestState(ProcState::Pause);
                break;
            case TQSvcControl::Continue:
                isDone = Processor().RequestState(ProcState::Run);
                break;
            case TQSvcControl::ParamChange:
            case TQSvcControl::HardwareProfileChange:
            case TQSvcControl::PowerEvent:
            case TQSvcControl::SessionChange:
                isDone = true;
                break;
            default:
                break;
        }
        return 0u;
    });
    return isDone;
}

DWORD TQService::ServiceHandler(DWORD control, DWORD, void*, void* context) {
    auto& service = *static_cast<TQService*>(static_cast<_TQService*>(context));
    bool isDone = false;
    TQString message;
    Guarded(L"Running Service::ServiceHandler", message, [&] {
        switch (control) {
            case TQSvcControl::Stop:
            case TQSvcControl::Pause:
            case TQSvcControl::Continue:
            case TQSvcControl::Shutdown:
            case TQSvcControl::ParamChange:
            case TQSvcControl::HardwareProfileChange:
            case TQSvcControl::PowerEvent:
            case TQSvcControl::SessionChange:
                isDone = service.HandleRequest(control);
                break;
            case TQSvcControl::Interrogate:
                service.ReportAgain();
                isDone = true;
                break;
            default:
                break;
        }
        return 0u;
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

void TQService::RunAppServiceMain(DWORD argc, wchar_t** argv) {
    TQString message;
    Guarded(MainContext, message, [&] {
        const _TQWin32Exception::Trap_SEH trap(L"TQService::RunAppServiceMain");
        TQStringArray arguments;
        for (DWORD i = 0; i < argc; ++i)
            arguments.Add(argv[i]);
        TQServiceMgr::HostedService(argc > 0 ? argv[0] : nullptr).RunRegistered(arguments);
        return 0u;
    });
}

void TQService::RunRegistered(const TQStringArray& arguments) {
    if (!RegisterHandler(&ServiceHandler)) TQSysException::ThrowLastError(L"TQService::RunAppServiceMain");
    TQString message;
    bool isDone = false;
    const unsigned int code = Guarded(MainContext, message, [&] {
        SetState(TQSvcState::StartPending);
        ExecuteServiceMain(arguments);
        isDone = true;
        return 0u;
    });
    // A service that has failed must not look like one that has ended well.
    if (!isDone) SetExitCode(code ? code : UnknownExceptionCode);
    SetState(TQSvcState::Stopped);
}

}  // namespace Quellan::Corvel
