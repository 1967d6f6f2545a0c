#include "TQLib/services/internal/InstalledService.h"

#include "TQLib/core/TQException.h"
#include "TQLib/services/internal/ServiceFailure.h"
#include "TQLib/text/memory/TQDataBuf.h"
#include "TQLib/text/memory/internal/Translated.h"

namespace Quellan::Corvel {

namespace {

// Calls `query(buffer, size, needed)` with a buffer that is large enough. False where the manager does not
// know what is asked for.
template <class Query>
bool Fill(BYTEBuf& buffer, const wchar_t* name, Query query) {
    for (DWORD needed = 0;;) {
        if (query(buffer.Data(), static_cast<DWORD>(buffer.Size()), &needed)) return true;
        const DWORD code = GetLastError();
        if (code == ERROR_INVALID_LEVEL) return false;
        if (code != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.Size()) ThrowServiceFailure(code, name);
        buffer.Resize(needed);
    }
}

// The optional part of a configuration; null where the manager does not know it.
template <class Info>
const Info* OptionalConfig(const TQSvcHandle& service, const wchar_t* name, DWORD level, BYTEBuf& buffer) {
    buffer.Clear();
    const bool isKnown = Fill(buffer, name, [&](BYTE* data, DWORD size, DWORD* needed) {
        return QueryServiceConfig2W(service.Get(), level, data, size, needed);
    });
    return isKnown ? reinterpret_cast<const Info*>(buffer.Data()) : nullptr;
}

TQStringArray TextsOf(const wchar_t* list) {
    TQStringArray texts;
    while (list && *list) {
        texts.Add(list);
        list += texts[texts.Count() - 1].Length() + 1;
    }
    return texts;
}

TQServiceOptions QueryOptions(const TQSvcHandle& service, const wchar_t* name) {
    TQServiceOptions options;
    BYTEBuf buffer;
    if (const auto* info =
            OptionalConfig<SERVICE_DESCRIPTIONW>(service, name, SERVICE_CONFIG_DESCRIPTION, buffer))
        options.description = info->lpDescription;
    if (const auto* info = OptionalConfig<SERVICE_DELAYED_AUTO_START_INFO>(
            service, name, SERVICE_CONFIG_DELAYED_AUTO_START_INFO, buffer))
        options.isStartDelayed = info->fDelayedAutostart != FALSE;
    if (const auto* info =
            OptionalConfig<SERVICE_FAILURE_ACTIONSW>(service, name, SERVICE_CONFIG_FAILURE_ACTIONS, buffer)) {
        options.failureResetSeconds = info->dwResetPeriod;
        options.failureCommand = info->lpCommand;
        Translated(L"TQServiceCtrl::Config", [&] {
            for (DWORD i = 0; i < info->cActions; ++i)
                options.failureActions.push_back(
                    {static_cast<TQSvcFailureAction::Kind>(info->lpsaActions[i].Type),
                     info->lpsaActions[i].Delay});
        });
    }
    return options;
}

}  // namespace

TQSvcHandle OpenManager(const wchar_t* machine, DWORD access) {
    TQSvcHandle manager =
        TQSvcHandle::Unique(OpenSCManagerW(machine && *machine ? machine : nullptr, nullptr, access));
    if (!manager) ThrowServiceFailure(nullptr);
    return manager;
}

TQSvcHandle OpenInstalled(const wchar_t* machine, const wchar_t* name, DWORD access) {
    const TQSvcHandle manager = OpenManager(machine, SC_MANAGER_CONNECT);
    TQSvcHandle service = TQSvcHandle::Unique(OpenServiceW(manager.Get(), name, access));
    if (!service) ThrowServiceFailure(name);
    return service;
}

TQServiceRecord RecordOf(const SERVICE_STATUS& status) noexcept {
    return {.serviceType = status.dwServiceType,
            .currentState = status.dwCurrentState,
            .controlsAccepted = status.dwControlsAccepted,
            .exitCode = status.dwWin32ExitCode,
            .specificExitCode = status.dwServiceSpecificExitCode,
            .checkPoint = status.dwCheckPoint,
            .waitHint = status.dwWaitHint};
}

TQServiceRecord QueryRecord(const TQSvcHandle& service, const wchar_t* name) {
    SERVICE_STATUS status;
    if (!QueryServiceStatus(service.Get(), &status)) ThrowServiceFailure(name);
    return RecordOf(status);
}

TQServiceConfig QueryConfig(const TQSvcHandle& service, const wchar_t* name) {
    BYTEBuf buffer;
    Fill(buffer, name, [&](BYTE* data, DWORD size, DWORD* needed) {
        return QueryServiceConfigW(service.Get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(data), size,
                                   needed);
    });
    const auto& basic = *reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.Data());
    TQServiceConfig config;
    config.displayName = basic.lpDisplayName;
    config.commandLine = basic.lpBinaryPathName;
    config.account = basic.lpServiceStartName;
    config.type = basic.dwServiceType;
    config.start = static_cast<TQSvcStart>(basic.dwStartType);
    config.options = QueryOptions(service, name);
    config.options.dependencies = TextsOf(basic.lpDependencies);
    return config;
}

TQString TextList(const TQStringArray& texts) {
    TQString list;
    for (const TQString& text : texts) {
        list.Append(text);
        list += L'\0';
    }
    return list;
}

}  // namespace Quellan::Corvel
