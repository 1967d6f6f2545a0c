#include "TQLib/services/TQServiceCtrl.h"

#include "TQLib/core/TQException.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/ServiceControl.h"
#include "TQLib/services/internal/InstalledService.h"
#include "TQLib/services/internal/ServiceFailure.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr DWORD DriverTypes = 0x0B;
constexpr DWORD ListBytes = 64 * 1024;

constexpr bool Has(ServiceListType types, ServiceListType type) noexcept {
    return (static_cast<DWORD>(types) & static_cast<DWORD>(type)) != 0;
}

// Looks at the service until `isOver(status)`, true, or until the time is up, which `extends` makes begin
// anew with each change of state or check point.
template <class IsOver>
bool Watch(const TQSvcHandle& service, const wchar_t* name, DWORD ms, bool extends,
           const TQServiceCtrl::Progress& progress, IsOver isOver) {
    TQCountdownTimer left(ms);
    TQServiceRecord last;
    for (;;) {
        const TQServiceRecord record = QueryRecord(service, name);
        if (progress) progress(record);
        if (isOver(record)) return true;
        const bool isMoving =
            record.currentState != last.currentState || record.checkPoint != last.checkPoint;
        if (extends && isMoving) left.Restart();
        last = record;
        if (left.IsExpired()) return false;
        Platform::AwaitServiceChange(service.Get(), record.currentState, record.checkPoint, left.Remaining());
    }
}

void RequestStart(const TQSvcHandle& service, const TQString& name, const TQStringArray& arguments) {
    std::vector<const wchar_t*> texts;
    for (const TQString& argument : arguments)
        texts.push_back(argument.c_str());
    if (!StartServiceW(service.Get(), static_cast<DWORD>(texts.size()), texts.data()))
        ThrowServiceFailure(name.c_str());
}

DWORD AccessFor(DWORD control) noexcept {
    if (control == TQSvcControl::Stop) return SERVICE_STOP;
    if (control == TQSvcControl::Interrogate) return SERVICE_INTERROGATE;
    return control < TQSvcControl::FirstOwn ? SERVICE_PAUSE_CONTINUE : SERVICE_USER_DEFINED_CONTROL;
}

}  // namespace

TQServiceCtrl::TQServiceCtrl(TQString name, const wchar_t* machine)
    : m_name(std::move(name)), m_machine(machine) {}
TQServiceCtrl::TQServiceCtrl(const TQServiceCtrl&) = default;
TQServiceCtrl& TQServiceCtrl::operator=(const TQServiceCtrl&) = default;
TQServiceCtrl::~TQServiceCtrl() = default;

TQSvcHandle TQServiceCtrl::Open(DWORD access) const {
    return OpenInstalled(m_machine.c_str(), m_name.c_str(), access);
}

TQServiceStatus TQServiceCtrl::QueryStatus() const {
    const TQSvcHandle service = Open(SERVICE_QUERY_STATUS | SERVICE_QUERY_CONFIG);
    return {m_name, QueryConfig(service, m_name.c_str()).displayName, QueryRecord(service, m_name.c_str())};
}

DWORD TQServiceCtrl::ProcessID() const {
    SERVICE_STATUS_PROCESS status;
    DWORD needed = 0;
    if (!QueryServiceStatusEx(Open(SERVICE_QUERY_STATUS).Get(), SC_STATUS_PROCESS_INFO,
                              reinterpret_cast<BYTE*>(&status), sizeof status, &needed))
        ThrowServiceFailure(m_name.c_str());
    return status.dwProcessId;
}

TQServiceConfig TQServiceCtrl::Config() const {
    return QueryConfig(Open(SERVICE_QUERY_CONFIG), m_name.c_str());
}

void TQServiceCtrl::Start(const TQStringArray& arguments) const {
    RequestStart(Open(SERVICE_START), m_name, arguments);
}

void TQServiceCtrl::StartAndWait(const TQStringArray& arguments, DWORD ms, const Progress& progress) const {
    const TQSvcHandle service = Open(SERVICE_START | SERVICE_QUERY_STATUS);
    RequestStart(service, m_name, arguments);
    TQServiceRecord last;
    const bool isOver =
        Watch(service, m_name.c_str(), ms, true, progress, [&](const TQServiceRecord& record) {
            last = record;
            return record.currentState == TQSvcState::Running || record.currentState == TQSvcState::Stopped;
        });
    if (!isOver) ThrowServiceFailure(ERROR_SERVICE_REQUEST_TIMEOUT, m_name.c_str());
    if (last.currentState == TQSvcState::Running) return;
    const DWORD code = last.exitCode == ERROR_SERVICE_SPECIFIC_ERROR ? last.specificExitCode : last.exitCode;
    throw TQSysException(
        code ? code : ERROR_PROCESS_ABORTED,
        TQString::Format(L"The service %s stopped before it was running.", m_name.c_str()).c_str());
}

TQServiceRecord TQServiceCtrl::Stop() const {
    return Control(TQSvcControl::Stop);
}
TQServiceRecord TQServiceCtrl::Pause() const {
    return Control(TQSvcControl::Pause);
}
TQServiceRecord TQServiceCtrl::Continue() const {
    return Control(TQSvcControl::Continue);
}
TQServiceRecord TQServiceCtrl::Interrogate() const {
    return Control(TQSvcControl::Interrogate);
}

TQServiceRecord TQServiceCtrl::Control(DWORD control) const {
    SERVICE_STATUS status;
    if (!ControlService(Open(AccessFor(control)).Get(), control, &status))
        ThrowServiceFailure(m_name.c_str());
    return RecordOf(status);
}

void TQServiceCtrl::StopAndWait(DWORD ms, const Progress& progress) const {
    const TQSvcHandle service = Open(SERVICE_STOP | SERVICE_QUERY_STATUS);
    SERVICE_STATUS status;
    if (!ControlService(service.Get(), SERVICE_CONTROL_STOP, &status)) {
        const DWORD code = GetLastError();
        // Its work may have ended by itself just before, whatever the control gives then.
        const DWORD state = QueryRecord(service, m_name.c_str()).currentState;
        if (state != TQSvcState::StopPending && state != TQSvcState::Stopped)
            ThrowServiceFailure(code, m_name.c_str());
    }
    if (!Watch(service, m_name.c_str(), ms, true, progress,
               [](const TQServiceRecord& record) { return record.currentState == TQSvcState::Stopped; }))
        ThrowServiceFailure(ERROR_SERVICE_REQUEST_TIMEOUT, m_name.c_str());
}

void TQServiceCtrl::Kill() const {
    const TQSvcHandle service = Open(SERVICE_STOP | SERVICE_QUERY_STATUS);
    if (const DWORD code = Platform::KillService(service.Get())) ThrowServiceFailure(code, m_name.c_str());
}

bool TQServiceCtrl::WaitForState(DWORD state, DWORD ms, const Progress& progress) const {
    return Watch(Open(SERVICE_QUERY_STATUS), m_name.c_str(), ms, false, progress,
                 [state](const TQServiceRecord& record) { return record.currentState == state; });
}

void TQServiceCtrl::Delete() const {
    if (!DeleteService(Open(DELETE).Get())) ThrowServiceFailure(m_name.c_str());
}

TQServiceList TQServiceCtrl::ServiceList(ServiceListType types, const wchar_t* machine) {
    const TQSvcHandle manager = OpenManager(machine, SC_MANAGER_ENUMERATE_SERVICE);
    const bool hasDrivers = Has(types, ServiceListType::Drivers);
    const DWORD type = (hasDrivers ? DriverTypes : 0) |
                       (!hasDrivers || Has(types, ServiceListType::Services) ? SERVICE_WIN32 : 0);
    DWORD state = (Has(types, ServiceListType::Active) ? SERVICE_ACTIVE : 0) |
                  (Has(types, ServiceListType::Inactive) ? SERVICE_INACTIVE : 0);
    if (state == 0) state = SERVICE_STATE_ALL;

    TQServiceList list;
    BYTEBuf buffer(ListBytes);
    DWORD code = ERROR_MORE_DATA;
    for (DWORD resume = 0; code == ERROR_MORE_DATA;) {
        DWORD needed = 0, count = 0;
        auto* const items = reinterpret_cast<ENUM_SERVICE_STATUSW*>(buffer.Data());
        code = EnumServicesStatusW(manager.Get(), type, state, items, static_cast<DWORD>(buffer.Size()),
                                   &needed, &count, &resume)
                   ? ERROR_SUCCESS
                   : GetLastError();
        if (code != ERROR_SUCCESS && code != ERROR_MORE_DATA) ThrowServiceFailure(code, nullptr);
        for (DWORD i = 0; i < count; ++i)
            list.Add({items[i].lpServiceName, items[i].lpDisplayName, RecordOf(items[i].ServiceStatus)});
        if (code == ERROR_MORE_DATA && needed > buffer.Size()) buffer.Resize(needed);
    }
    return list;
}

}  // namespace Quellan::Corvel
