#include "TQLib/services/TQServiceMgr.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/ServiceControl.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "TQLib/services/internal/InsideService.h"
#include "TQLib/services/internal/InstalledService.h"
#include "TQLib/services/internal/ServiceFailure.h"
#include "TQLib/services/internal/ServiceHost.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/text/TQEscape.h"
#include "TQLib/text/memory/internal/Translated.h"
#include "TQLib/threads/internal/GuardedStep.h"

#include <algorithm>
#include <array>
#include <list>
#include <span>

namespace Quellan::Corvel {

namespace {

struct Entry {
    _TQService* service;
    TQString name;
};

// Entries are made and destroyed without the lock.
struct Hosted {
    TQThreadSynch lock;
    std::list<Entry> entries TQ_GUARDED_BY(lock);

    std::list<Entry>::iterator Find(const wchar_t* name) TQ_REQUIRES(lock) {
        return std::ranges::find_if(
            entries, [name](const Entry& entry) { return entry.name.CompareNoCase(name) == 0; });
    }
};

// Never destroyed: the destructors of static services still take themselves out.
Hosted& TheHosted() {
    static Hosted* const hosted = new Hosted;
    return *hosted;
}

// What the platform is told of the options of a service, in its own structures.
class OptionSettings {
  public:
    OptionSettings(TQSvcStart start, const TQServiceOptions& options) {
        m_description.lpDescription = TextOrNull(m_descriptionText, options.description);
        if (m_description.lpDescription) Add(SERVICE_CONFIG_DESCRIPTION, m_description);
        if (options.isStartDelayed && start == TQSvcStart::Auto)
            Add(SERVICE_CONFIG_DELAYED_AUTO_START_INFO, m_delayed);
        if (!options.failureActions.empty()) AddFailureActions(options);
    }
    OptionSettings(const OptionSettings&) = delete;
    OptionSettings& operator=(const OptionSettings&) = delete;

    std::span<const Platform::ServiceSetting> All() const { return {m_all.data(), m_count}; }

  private:
    // An empty text is not there.
    static wchar_t* TextOrNull(TCHARBuf& buffer, const TQString& text) {
        if (text.IsEmpty()) return nullptr;
        buffer.Assign(text.c_str(), text.Length() + 1);
        return buffer.Data();
    }
    template <class Info>
    void Add(DWORD level, Info& info) {
        m_all[m_count++] = {level, &info};
    }
    void AddFailureActions(const TQServiceOptions& options) {
        for (const TQSvcFailureAction& action : options.failureActions)
            m_actions.push_back({static_cast<SC_ACTION_TYPE>(action.kind), action.delayMs});
        m_failure = {.dwResetPeriod = options.failureResetSeconds,
                     .lpRebootMsg = nullptr,
                     .lpCommand = TextOrNull(m_commandText, options.failureCommand),
                     .cActions = static_cast<DWORD>(m_actions.size()),
                     .lpsaActions = m_actions.data()};
        Add(SERVICE_CONFIG_FAILURE_ACTIONS, m_failure);
        // Services of this library report what has failed as an exit code, and do not die of it. A manager that
        // does not know of that acts on crashes alone.
        Add(SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, m_onExitCodeToo);
    }

    TCHARBuf m_descriptionText, m_commandText;
    std::vector<SC_ACTION> m_actions;
    SERVICE_DESCRIPTIONW m_description{};
    SERVICE_DELAYED_AUTO_START_INFO m_delayed{TRUE};
    SERVICE_FAILURE_ACTIONSW m_failure{};
    SERVICE_FAILURE_ACTIONS_FLAG m_onExitCodeToo{TRUE};
    std::array<Platform::ServiceSetting, 4> m_all{};
    std::size_t m_count = 0;
};

}  // namespace

void TQServiceMgr::RegisterService(_TQService* service) {
    constexpr const wchar_t* where = L"TQServiceMgr::RegisterService";
    if (!service) TQStdExceptions::ThrowParameterInvalidError(where);
    std::list<Entry> added;
    bool isTaken;
    Translated(where, [&] { added.push_back({service, service->ServiceName()}); });
    {
        Hosted& hosted = TheHosted();
        const TQThreadSynch::TQSynchLock guard(hosted.lock);
        isTaken = hosted.Find(added.front().name.c_str()) != hosted.entries.end();
        if (!isTaken) hosted.entries.splice(hosted.entries.end(), added);
    }
    if (isTaken) throw TQException(ERROR_SERVICE_EXISTS, where);
}

void TQServiceMgr::UnRegisterService(_TQService* service) noexcept {
    std::list<Entry> removed;
    Hosted& hosted = TheHosted();
    const TQThreadSynch::TQSynchLock guard(hosted.lock);
    const auto found = std::ranges::find(hosted.entries, service, &Entry::service);
    if (found != hosted.entries.end()) removed.splice(removed.end(), hosted.entries, found);
}

std::vector<_TQService*> TQServiceMgr::HostedServices() {
    Hosted& hosted = TheHosted();
    std::vector<_TQService*> services;
    for (std::size_t count = 0;;) {
        Translated(L"TQServiceMgr::HostedServices", [&] { services.reserve(count); });
        const TQThreadSynch::TQSynchLock guard(hosted.lock);
        count = hosted.entries.size();
        if (count > services.capacity()) continue;
        for (const Entry& entry : hosted.entries)
            services.push_back(entry.service);
        return services;
    }
}

TQService& TQServiceMgr::HostedService(const wchar_t* name) {
    const std::vector<_TQService*> services = HostedServices();
    _TQService* found = services.empty() ? nullptr : services.front();
    Hosted& hosted = TheHosted();
    {
        const TQThreadSynch::TQSynchLock guard(hosted.lock);
        const auto named = hosted.Find(name);
        if (named != hosted.entries.end()) found = named->service;
    }
    auto* const service = dynamic_cast<TQService*>(found);
    if (!service) throw TQException(ERROR_SERVICE_NOT_IN_EXE, L"TQServiceMgr::HostedService");
    return *service;
}

LONG TQServiceMgr::Dispatch() {
    const std::vector<_TQService*> services = HostedServices();
    if (services.empty()) throw TQException(ERROR_SERVICE_NOT_IN_EXE, L"No service is registered.");
    // The platform wants names that could be written to.
    std::vector<TCHARBuf> names;
    std::vector<SERVICE_TABLE_ENTRYW> table;
    Translated(L"TQServiceMgr::RunServices", [&] {
        for (const _TQService* service : services) {
            const TQString name = service->ServiceName();
            names.emplace_back(name.c_str(), name.Length() + 1);
            table.push_back({names.back().Data(), &TQService::RunAppServiceMain});
        }
        table.push_back({nullptr, nullptr});
    });
    const DWORD code = ServiceHost::Current().Dispatch(table.data()) ? ERROR_SUCCESS : GetLastError();
    InsideService::WaitForNone();
    if (code) throw TQSysException(code, L"TQServiceMgr::RunServices");
    const auto hasFailed = [](const _TQService* service) { return service->CurrentRecord().exitCode != 0; };
    return std::ranges::any_of(HostedServices(), hasFailed) ? 1 : 0;
}

LONG TQServiceMgr::RunServices() {
    auto result = static_cast<LONG>(UnknownExceptionCode);
    Guarded(L"Processing ServiceMgr RunServices()", [&] {
        const _TQWin32Exception::Trap_SEH trap(L"ServiceMgr::RunServices");
        result = Dispatch();
    });
    return result;
}

void TQServiceMgr::Install(const TQStringArray& arguments) {
    const std::vector<_TQService*> services = HostedServices();
    std::vector<TQSvcHandle> installed;
    Translated(L"TQServiceMgr::Install", [&] { installed.reserve(services.size()); });
    try {
        for (_TQService* service : services) {
            TQSvcHandle handle;
            InstallService(*service, arguments, handle);
            installed.push_back(handle);
        }
    } catch (...) {
        const _TQLastErrorKeeper keeper;
        for (const TQSvcHandle& handle : installed)
            DeleteService(handle.Get());
        throw;
    }
}

void TQServiceMgr::UnInstall() {
    TQString missing;
    const std::vector<_TQService*> services = HostedServices();
    for (std::size_t i = services.size(); i-- > 0;) {
        const TQString name = services[i]->ServiceName();
        TQSvcHandle handle;
        try {
            RemoveService(nullptr, name.c_str(), handle);
        } catch (const TQSysException& failure) {
            if (failure.ErrCode() != ERROR_SERVICE_DOES_NOT_EXIST) throw;
            missing = name;
        }
    }
    if (!missing.IsEmpty()) ThrowServiceFailure(ERROR_SERVICE_DOES_NOT_EXIST, missing.c_str());
}

void TQServiceMgr::InstallService(_TQService& service, const TQStringArray& arguments, TQSvcHandle& handle) {
    const TQString name = service.ServiceName(), displayName = service.DisplayName(),
                   account = service.LogonAccount(), password = service.LogonPassword();
    const TQString commandLine = TQWindowsCommandLine(TQSysProc::ModuleFileName(nullptr), arguments);
    InstallService(handle, name.c_str(), displayName.c_str(), commandLine.c_str(), account.c_str(),
                   password.c_str(), service.CurrentRecord().serviceType, service.StartType(),
                   service.Options());
}

void TQServiceMgr::InstallService(TQSvcHandle& service, const wchar_t* name, const wchar_t* displayName,
                                  const wchar_t* commandLine, const wchar_t* account, const wchar_t* password,
                                  DWORD type, TQSvcStart start, const TQServiceOptions& options) {
    const auto orNull = [](const wchar_t* text) { return text && *text ? text : nullptr; };
    if (!orNull(name) || !orNull(commandLine))
        TQStdExceptions::ThrowParameterInvalidError(L"TQServiceMgr::InstallService");
    const TQString dependencies = TextList(options.dependencies);
    const TQSvcHandle manager = OpenManager(nullptr, SC_MANAGER_CREATE_SERVICE);
    Translated(L"TQServiceMgr::InstallService", [&] {
        const OptionSettings settings(start, options);
        TQSvcHandle created = TQSvcHandle::Unique(Platform::CreateServiceWith(
            settings.All(), manager.Get(), name, orNull(displayName) ? displayName : name, SERVICE_ALL_ACCESS,
            type, static_cast<DWORD>(start), SERVICE_ERROR_NORMAL, commandLine,
            dependencies.IsEmpty() ? nullptr : dependencies.c_str(), orNull(account),
            orNull(account) ? orNull(password) : nullptr));
        if (!created) ThrowServiceFailure(name);
        service = created;
    });
}

bool TQServiceMgr::ServiceInstalled(const wchar_t* name, TQSvcHandle& service, DWORD access) {
    try {
        service = OpenInstalled(nullptr, name, access);
        return true;
    } catch (const TQSysException& failure) {
        if (failure.ErrCode() != ERROR_SERVICE_DOES_NOT_EXIST) throw;
        return false;
    }
}

void TQServiceMgr::RemoveService(const wchar_t* machine, const wchar_t* name, TQSvcHandle& service) {
    const TQSvcHandle opened = OpenInstalled(machine, name, DELETE | SERVICE_QUERY_STATUS);
    if (QueryRecord(opened, name).currentState != TQSvcState::Stopped)
        TQServiceCtrl(name, machine).StopAndWait(ProgressTimeoutMs);
    if (!DeleteService(opened.Get())) ThrowServiceFailure(name);
    service = opened;
}

void TQServiceMgr::StartServiceW(const wchar_t* machine, const wchar_t* name, DWORD argc,
                                 const wchar_t** argv) {
    TQStringArray arguments;
    for (DWORD i = 0; i < argc; ++i)
        arguments.Add(argv[i]);
    TQServiceCtrl(name, machine).Start(arguments);
}

void TQServiceMgr::StartServiceW(const wchar_t* name, DWORD argc, const wchar_t** argv) {
    StartServiceW(nullptr, name, argc, argv);
}

void TQServiceMgr::ExecuteService(const wchar_t* name, const TQStringArray& arguments) {
    TQServiceCtrl(name).StartAndWait(arguments, ProgressTimeoutMs);
}

bool TQServiceMgr::OpenSCManagerW(TQSvcHandle& manager, DWORD access) {
    return OpenSCManagerW(manager, nullptr, access);
}

bool TQServiceMgr::OpenSCManagerW(TQSvcHandle& manager, const wchar_t* machine, DWORD access) {
    try {
        manager = OpenManager(machine, access);
        return true;
    } catch (const TQSysException& failure) {
        if (failure.ErrCode() != ERROR_ACCESS_DENIED) throw;
        return false;
    }
}

}  // namespace Quellan::Corvel
