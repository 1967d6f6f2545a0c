// What is known and set of a service beside its state.
#include "TQLib/platform/linux/services/ServiceSettings.h"

#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/services/ServiceClient.h"

namespace Quellan::Platform {

namespace {

// More than this no caller means.
constexpr DWORD MostActions = 1024;

DWORD ReadActions(const SERVICE_FAILURE_ACTIONSW& given, FailureActions& failure) {
    if (given.cActions > MostActions) return ERROR_INVALID_PARAMETER;
    for (DWORD i = 0; i < given.cActions; ++i) {
        const SC_ACTION& action = given.lpsaActions[i];
        if (action.Type == SC_ACTION_REBOOT) return ERROR_NOT_SUPPORTED;
        failure.actions.push_back({static_cast<DWORD>(action.Type), action.Delay});
    }
    // Without actions the period goes too.
    if (given.cActions) failure.resetPeriod = given.dwResetPeriod;
    return ERROR_SUCCESS;
}

void ReadSetting(const wchar_t* text, std::optional<std::string>& field) {
    if (text) field = ToUtf8(text);
}

wchar_t* PutTexts(Packer& packer, const std::vector<std::string>& texts) {
    std::wstring all;
    for (const std::string& text : texts)
        all += ToWide(text) + L'\0';
    return packer.Text(all);
}

void PutConfig(Packer& packer, const ServiceConfig& config) {
    auto* const place = packer.Array<QUERY_SERVICE_CONFIGW>(1);
    const QUERY_SERVICE_CONFIGW put = {
        .dwServiceType = config.type,
        .dwStartType = config.start,
        .dwErrorControl = config.errorControl,
        .lpBinaryPathName = packer.Text(ToWide(config.commandLine)),
        .lpLoadOrderGroup = packer.Text(ToWide(config.group)),
        .dwTagId = 0,
        .lpDependencies = PutTexts(packer, config.dependencies),
        .lpServiceStartName = packer.Text(ToWide(config.account)),
        .lpDisplayName = packer.Text(ToWide(config.displayName)),
    };
    if (place) *place = put;
}

// None where there is no text.
wchar_t* PutTextOrNull(Packer& packer, const std::string& text) {
    return text.empty() ? nullptr : packer.Text(ToWide(text));
}

void PutFailureActions(Packer& packer, const ServiceConfig& config) {
    auto* const place = packer.Array<SERVICE_FAILURE_ACTIONSW>(1);
    auto* const actions = packer.Array<SC_ACTION>(config.failure.actions.size());
    SERVICE_FAILURE_ACTIONSW put{};
    put.dwResetPeriod = config.failure.resetPeriod;
    put.lpRebootMsg = PutTextOrNull(packer, config.rebootMessage);
    put.lpCommand = PutTextOrNull(packer, config.failureCommand);
    put.cActions = static_cast<DWORD>(config.failure.actions.size());
    put.lpsaActions = put.cActions ? actions : nullptr;
    if (!place) return;
    *place = put;
    for (std::size_t i = 0; i < config.failure.actions.size(); ++i) {
        const FailureAction& action = config.failure.actions[i];
        actions[i] = {static_cast<SC_ACTION_TYPE>(action.type), action.delay};
    }
}

template <class Info>
void PutOne(Packer& packer, const Info& info) {
    if (auto* const place = packer.Array<Info>(1)) *place = info;
}

DWORD PutLevel(Packer& packer, DWORD level, const ServiceConfig& config) {
    switch (level) {
        case SERVICE_CONFIG_DESCRIPTION: {
            auto* const place = packer.Array<SERVICE_DESCRIPTIONW>(1);
            wchar_t* const text = PutTextOrNull(packer, config.description);
            if (place) place->lpDescription = text;
            return ERROR_SUCCESS;
        }
        case SERVICE_CONFIG_FAILURE_ACTIONS:
            PutFailureActions(packer, config);
            return ERROR_SUCCESS;
        case SERVICE_CONFIG_DELAYED_AUTO_START_INFO:
            PutOne(packer, SERVICE_DELAYED_AUTO_START_INFO{config.delayed != 0});
            return ERROR_SUCCESS;
        case SERVICE_CONFIG_FAILURE_ACTIONS_FLAG:
            PutOne(packer, SERVICE_FAILURE_ACTIONS_FLAG{config.failsWithoutCrash != 0});
            return ERROR_SUCCESS;
        default:
            return ERROR_INVALID_LEVEL;
    }
}

// Asks for the record and has `put` place it in the buffer.
template <class Put>
BOOL QueryConfig(SC_HANDLE service, void* buffer, DWORD size, DWORD* needed, Put put) noexcept {
    if (!needed || (!buffer && size)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) -> DWORD {
        ConfigReplyMessage reply;
        if (DWORD code = client.Ask(QueryConfigMessage(), reply)) return code;
        Packer counter;
        if (DWORD code = put(counter, reply.config)) return code;
        *needed = static_cast<DWORD>(counter.Size());
        if (size < counter.Size()) return ERROR_INSUFFICIENT_BUFFER;
        Packer packer(buffer);
        return put(packer, reply.config);
    });
}

}  // namespace

DWORD ReadServiceSetting(DWORD level, const void* info, ServiceChange& change) {
    if (DWORD code = FaultDue("ChangeServiceConfig2W")) return code;
    if (!info) return ERROR_INVALID_PARAMETER;
    switch (level) {
        case SERVICE_CONFIG_DESCRIPTION:
            ReadSetting(static_cast<const SERVICE_DESCRIPTIONW*>(info)->lpDescription, change.description);
            return ERROR_SUCCESS;
        case SERVICE_CONFIG_FAILURE_ACTIONS: {
            const auto& given = *static_cast<const SERVICE_FAILURE_ACTIONSW*>(info);
            ReadSetting(given.lpRebootMsg, change.rebootMessage);
            ReadSetting(given.lpCommand, change.failureCommand);
            return given.lpsaActions ? ReadActions(given, change.failure.emplace()) : ERROR_SUCCESS;
        }
        case SERVICE_CONFIG_DELAYED_AUTO_START_INFO:
            change.delayed =
                static_cast<const SERVICE_DELAYED_AUTO_START_INFO*>(info)->fDelayedAutostart != 0;
            return ERROR_SUCCESS;
        case SERVICE_CONFIG_FAILURE_ACTIONS_FLAG:
            change.failsWithoutCrash =
                static_cast<const SERVICE_FAILURE_ACTIONS_FLAG*>(info)->fFailureActionsOnNonCrashFailures !=
                0;
            return ERROR_SUCCESS;
        default:
            return ERROR_INVALID_LEVEL;
    }
}

BOOL ChangeServiceConfig2W(SC_HANDLE service, DWORD level, void* info) noexcept {
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) {
        ChangeServiceMessage request;
        const DWORD code = ReadServiceSetting(level, info, request.change);
        return code ? code : client.Ask(request);
    });
}

BOOL QueryServiceConfigW(SC_HANDLE service, QUERY_SERVICE_CONFIGW* config, DWORD size,
                         DWORD* needed) noexcept {
    if (DWORD code = FaultDue("QueryServiceConfigW")) return Fail(code, FALSE);
    return QueryConfig(service, config, size, needed, [](Packer& packer, const ServiceConfig& found) {
        PutConfig(packer, found);
        return DWORD{ERROR_SUCCESS};
    });
}

BOOL QueryServiceConfig2W(SC_HANDLE service, DWORD level, BYTE* buffer, DWORD size, DWORD* needed) noexcept {
    if (DWORD code = FaultDue("QueryServiceConfig2W")) return Fail(code, FALSE);
    return QueryConfig(service, buffer, size, needed, [&](Packer& packer, const ServiceConfig& found) {
        return PutLevel(packer, level, found);
    });
}

}  // namespace Quellan::Platform
