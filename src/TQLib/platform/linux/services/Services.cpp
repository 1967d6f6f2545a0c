#include "TQLib/platform/linux/services/Services.h"

#include "TQLib/platform/ServiceControl.h"
#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/services/ServiceClient.h"
#include "TQLib/platform/linux/services/ServiceSettings.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <iterator>

namespace Quellan::Platform {

namespace {

bool IsEmptyText(const wchar_t* text) noexcept {
    return !text || !*text;
}

template <class Handle, class Opening>
DWORD NewServiceHandle(const Opening& opening, SC_HANDLE& handle) {
    std::unique_ptr<ServiceClient> client;
    if (DWORD code = ServiceClient::Open(opening, client)) return code;
    if constexpr (std::is_same_v<Opening, CreateServiceMessage>)
        client->SetOpening(OpenServiceMessage{opening.version, opening.access, opening.name});
    HANDLE made = nullptr;
    if (DWORD code = NewHandle<Handle>(made, 0, std::move(client))) return code;
    handle = static_cast<SC_HANDLE>(made);
    return ERROR_SUCCESS;
}

// Texts with terminators, one more at the end. 87 (ERROR_INVALID_PARAMETER) for a group's name.
DWORD ReadDependencies(const wchar_t* texts, std::vector<std::string>& names) {
    for (; !IsEmptyText(texts); texts += std::wcslen(texts) + 1) {
        if (*texts == L'+') return ERROR_INVALID_PARAMETER;
        names.push_back(ToUtf8(texts));
    }
    return ERROR_SUCCESS;
}

void ReadGiven(const wchar_t* text, std::optional<std::string>& field) {
    if (text) field = ToUtf8(text);
}
void ReadNumber(DWORD number, std::optional<DWORD>& field) {
    if (number != SERVICE_NO_CHANGE) field = number;
}

DWORD ReadChange(const wchar_t* displayName, DWORD type, DWORD start, DWORD errorControl,
                 const wchar_t* commandLine, const wchar_t* group, const DWORD* tag,
                 const wchar_t* dependencies, const wchar_t* account, ServiceChange& change) {
    if (tag) return ERROR_INVALID_PARAMETER;
    ReadNumber(type, change.type);
    ReadNumber(start, change.start);
    ReadNumber(errorControl, change.errorControl);
    ReadGiven(commandLine, change.commandLine);
    ReadGiven(group, change.group);
    ReadGiven(account, change.account);
    ReadGiven(displayName, change.displayName);
    return dependencies ? ReadDependencies(dependencies, change.dependencies.emplace()) : ERROR_SUCCESS;
}

SERVICE_STATUS_PROCESS WithProcess(const SERVICE_STATUS& status, DWORD process) noexcept {
    SERVICE_STATUS_PROCESS result{};
    static_assert(offsetof(SERVICE_STATUS_PROCESS, dwProcessId) == sizeof status);
    std::memcpy(&result, &status, sizeof status);
    result.dwProcessId = process;
    return result;
}

void SetStatus(const ListedService& service, ENUM_SERVICE_STATUSW& entry) noexcept {
    entry.ServiceStatus = service.status;
}
void SetStatus(const ListedService& service, ENUM_SERVICE_STATUS_PROCESSW& entry) noexcept {
    entry.ServiceStatusProcess = WithProcess(service.status, service.process);
}

// As many as fit from number `first` on: the entries, then their texts. 234 (ERROR_MORE_DATA) with the size
// of the rest.
template <class Entry>
DWORD PutServices(const std::vector<ListedService>& services, std::size_t first, void* buffer, DWORD size,
                  DWORD& needed, DWORD& count) {
    const auto bytesOf = [](const ListedService& service) {
        const std::size_t characters = WideLength(service.name) + WideLength(service.displayName) + 2;
        // A list of entries and texts has no gaps when each part of it fills whole words.
        return sizeof(Entry) + (characters * sizeof(wchar_t) + 7) / 8 * 8;
    };
    std::size_t used = 0, rest = 0, last = first;
    for (; last < services.size() && used + bytesOf(services[last]) <= size; ++last)
        used += bytesOf(services[last]);
    for (std::size_t i = last; i < services.size(); ++i)
        rest += bytesOf(services[i]);
    Packer packer(buffer);
    Entry* entry = packer.Array<Entry>(last - first);
    for (std::size_t i = first; i < last; ++i, ++entry) {
        entry->lpServiceName = packer.Text(ToWide(services[i].name));
        entry->lpDisplayName = packer.Text(ToWide(services[i].displayName));
        SetStatus(services[i], *entry);
    }
    needed = static_cast<DWORD>(rest);
    count = static_cast<DWORD>(last - first);
    return last < services.size() ? ERROR_MORE_DATA : ERROR_SUCCESS;
}

// All that match, one part after the other.
DWORD ReadServices(ServiceClient& client, EnumServicesMessage request, std::vector<ListedService>& services) {
    for (EnumReplyMessage reply{1, {}}; reply.goesOn;) {
        if (DWORD code = client.Ask(request, reply)) return code;
        if (reply.goesOn && reply.services.empty()) return RPC_S_PROTOCOL_ERROR;
        std::ranges::move(reply.services, std::back_inserter(services));
        if (!services.empty()) request.after = services.back().name;
    }
    return ERROR_SUCCESS;
}

template <class Entry>
BOOL Enumerate(SC_HANDLE manager, EnumServicesMessage request, const wchar_t* group, void* buffer, DWORD size,
               DWORD* needed, DWORD* count, DWORD* resume) noexcept {
    if (!needed || !count || (!buffer && size)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ManagerHandle>(manager, [&](ServiceClient& client) {
        if (group) request.group = ToUtf8(group);
        std::vector<ListedService> services;
        if (DWORD code = ReadServices(client, std::move(request), services)) return code;
        const std::size_t first = std::min<std::size_t>(resume ? *resume : 0, services.size());
        const DWORD code = PutServices<Entry>(services, first, buffer, size, *needed, *count);
        if (resume) *resume = code ? static_cast<DWORD>(first) + *count : 0;
        return code;
    });
}

DWORD AskName(ServiceClient& client, const FindNameMessage& request, wchar_t* buffer, DWORD& size) {
    NameReplyMessage reply;
    if (DWORD code = client.Ask(request, reply)) return code;
    const std::wstring name = ToWide(reply.name);
    const bool fits = buffer && CopyOut(name, buffer, size);
    size = static_cast<DWORD>(name.size());
    return fits ? ERROR_SUCCESS : ERROR_INSUFFICIENT_BUFFER;
}

BOOL FindName(SC_HANDLE manager, DWORD byDisplayName, const wchar_t* name, wchar_t* buffer,
              DWORD* size) noexcept {
    if (!name || !size) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ManagerHandle>(manager, [&](ServiceClient& client) {
        return AskName(client, {byDisplayName, ToUtf8(name)}, buffer, *size);
    });
}

// Creates what `read` says.
template <class Read>
SC_HANDLE Create(SC_HANDLE manager, const wchar_t* name, DWORD access, Read read) noexcept {
    if (DWORD code = FaultDue("CreateServiceW")) return Fail<SC_HANDLE>(code, nullptr);
    if (!name) return Fail<SC_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    SC_HANDLE handle = nullptr;
    WithServiceHandle<ManagerHandle>(manager, [&](const ServiceClient& client) {
        if (!(client.Access() & SC_MANAGER_CREATE_SERVICE)) return DWORD{ERROR_ACCESS_DENIED};
        ServiceChange given;
        if (DWORD code = read(given)) return code;
        // What was not given is nothing, or a number that no service has.
        CreateServiceMessage request{ServiceProtocolVersion, access, ToUtf8(name), {}};
        request.config.type = request.config.start = request.config.errorControl = SERVICE_NO_CHANGE;
        given.ApplyTo(request.config);
        return NewServiceHandle<ServiceHandle>(request, handle);
    });
    return handle;
}

}  // namespace

SC_HANDLE OpenSCManagerW(const wchar_t* machine, const wchar_t* database, DWORD access) noexcept {
    if (DWORD code = FaultDue("OpenSCManagerW")) return Fail<SC_HANDLE>(code, nullptr);
    if (!IsThisMachine(machine)) return Fail<SC_HANDLE>(RPC_S_SERVER_UNAVAILABLE, nullptr);
    if (!IsEmptyText(database) && std::wstring_view(database) != SERVICES_ACTIVE_DATABASEW)
        return Fail<SC_HANDLE>(ERROR_DATABASE_DOES_NOT_EXIST, nullptr);
    SC_HANDLE handle = nullptr;
    const DWORD code = WithMemory([&] {
        return NewServiceHandle<ManagerHandle>(OpenManagerMessage{ServiceProtocolVersion, access}, handle);
    });
    return code ? Fail<SC_HANDLE>(code, nullptr) : handle;
}

SC_HANDLE OpenServiceW(SC_HANDLE manager, const wchar_t* name, DWORD access) noexcept {
    if (DWORD code = FaultDue("OpenServiceW")) return Fail<SC_HANDLE>(code, nullptr);
    if (!name) return Fail<SC_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    SC_HANDLE handle = nullptr;
    WithServiceHandle<ManagerHandle>(manager, [&](ServiceClient&) {
        return NewServiceHandle<ServiceHandle>(
            OpenServiceMessage{ServiceProtocolVersion, access, ToUtf8(name)}, handle);
    });
    return handle;
}

BOOL CloseServiceHandle(SC_HANDLE handle) noexcept {
    DWORD code = CloseHandleOf(handle, &ServiceHandle::Kind);
    if (code) code = CloseHandleOf(handle, &ManagerHandle::Kind);
    return code ? Fail(code, FALSE) : TRUE;
}

SC_HANDLE CreateServiceW(SC_HANDLE manager, const wchar_t* name, const wchar_t* displayName, DWORD access,
                         DWORD type, DWORD start, DWORD errorControl, const wchar_t* commandLine,
                         const wchar_t* group, DWORD* tag, const wchar_t* dependencies,
                         const wchar_t* account, const wchar_t*) noexcept {
    return Create(manager, name, access, [&](ServiceChange& given) {
        return ReadChange(displayName, type, start, errorControl, commandLine, group, tag, dependencies,
                          account, given);
    });
}

SC_HANDLE CreateServiceWith(std::span<const ServiceSetting> settings, SC_HANDLE manager, const wchar_t* name,
                            const wchar_t* displayName, DWORD access, DWORD type, DWORD start,
                            DWORD errorControl, const wchar_t* commandLine, const wchar_t* dependencies,
                            const wchar_t* account, const wchar_t*) noexcept {
    return Create(manager, name, access, [&](ServiceChange& given) {
        DWORD code = ReadChange(displayName, type, start, errorControl, commandLine, nullptr, nullptr,
                                dependencies, account, given);
        for (auto setting = settings.begin(); !code && setting != settings.end(); ++setting)
            code = ReadServiceSetting(setting->level, setting->info, given);
        return code;
    });
}

BOOL DeleteService(SC_HANDLE service) noexcept {
    if (DWORD code = FaultDue("DeleteService")) return Fail(code, FALSE);
    return WithServiceHandle<ServiceHandle>(
        service, [](ServiceClient& client) { return client.Ask(DeleteServiceMessage()); });
}

BOOL ChangeServiceConfigW(SC_HANDLE service, DWORD type, DWORD start, DWORD errorControl,
                          const wchar_t* commandLine, const wchar_t* group, DWORD* tag,
                          const wchar_t* dependencies, const wchar_t* account, const wchar_t*,
                          const wchar_t* displayName) noexcept {
    if (DWORD code = FaultDue("ChangeServiceConfigW")) return Fail(code, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) {
        ChangeServiceMessage request;
        const DWORD code = ReadChange(displayName, type, start, errorControl, commandLine, group, tag,
                                      dependencies, account, request.change);
        return code ? code : client.Ask(request);
    });
}

BOOL QueryServiceObjectSecurity(SC_HANDLE service, SECURITY_INFORMATION wanted,
                                PSECURITY_DESCRIPTOR descriptor, DWORD size, DWORD* needed) noexcept {
    if (DWORD code = FaultDue("QueryServiceObjectSecurity")) return Fail(code, FALSE);
    if (!needed) return Fail(ERROR_NOACCESS, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) -> DWORD {
        constexpr DWORD Everybodys =
            SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS | SERVICE_INTERROGATE;
        if (!(client.Access() & READ_CONTROL)) return ERROR_ACCESS_DENIED;
        const SidValue system = FindWellKnownSid(WinLocalSystemSid)->Sid();
        const SidValue everyone = FindWellKnownSid(WinWorldSid)->Sid();
        FileSecurity security;
        security.control = SE_DACL_PRESENT;
        security.owner = security.group = system;
        security.hasList = true;
        security.list = std::vector<AccessEntry>{{ACCESS_ALLOWED_ACE_TYPE, 0, SERVICE_ALL_ACCESS, system},
                                                 {ACCESS_ALLOWED_ACE_TYPE, 0, Everybodys, everyone}};
        return PutDescriptor(security, wanted, descriptor, size, *needed);
    });
}

BOOL SetServiceObjectSecurity(SC_HANDLE service, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR) noexcept {
    if (DWORD code = FaultDue("SetServiceObjectSecurity")) return Fail(code, FALSE);
    return WithServiceHandle<ServiceHandle>(service,
                                            [](ServiceClient&) { return DWORD{ERROR_NOT_SUPPORTED}; });
}

BOOL GetServiceDisplayNameW(SC_HANDLE manager, const wchar_t* name, wchar_t* displayName,
                            DWORD* size) noexcept {
    if (DWORD code = FaultDue("GetServiceDisplayNameW")) return Fail(code, FALSE);
    return FindName(manager, FALSE, name, displayName, size);
}

BOOL GetServiceKeyNameW(SC_HANDLE manager, const wchar_t* displayName, wchar_t* name, DWORD* size) noexcept {
    if (DWORD code = FaultDue("GetServiceKeyNameW")) return Fail(code, FALSE);
    return FindName(manager, TRUE, displayName, name, size);
}

BOOL StartServiceW(SC_HANDLE service, DWORD argumentCount, const wchar_t** arguments) noexcept {
    if (DWORD code = FaultDue("StartServiceW")) return Fail(code, FALSE);
    if (argumentCount && !arguments) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) -> DWORD {
        StartServiceMessage request;
        for (DWORD i = 0; i < argumentCount; ++i) {
            if (!arguments[i]) return ERROR_INVALID_PARAMETER;
            request.arguments.push_back(ToUtf8(arguments[i]));
        }
        return client.Ask(request);
    });
}

BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status) noexcept {
    if (DWORD code = FaultDue("ControlService")) return Fail(code, FALSE);
    if (!status) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) {
        StatusReplyMessage reply;
        if (DWORD code = client.Ask(ControlServiceMessage{control}, reply)) return code;
        *status = reply.status;
        return reply.code;
    });
}

BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status) noexcept {
    if (DWORD code = FaultDue("QueryServiceStatus")) return Fail(code, FALSE);
    if (!status) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) {
        StatusReplyMessage reply;
        if (DWORD code = client.Ask(QueryStatusMessage(), reply)) return code;
        *status = reply.status;
        return reply.code;
    });
}

BOOL QueryServiceStatusEx(SC_HANDLE service, SC_STATUS_TYPE level, BYTE* buffer, DWORD size,
                          DWORD* needed) noexcept {
    if (DWORD code = FaultDue("QueryServiceStatusEx")) return Fail(code, FALSE);
    if (level != SC_STATUS_PROCESS_INFO) return Fail(ERROR_INVALID_LEVEL, FALSE);
    if (!needed || (!buffer && size)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) -> DWORD {
        StatusReplyMessage reply;
        if (DWORD code = client.Ask(QueryStatusMessage(), reply)) return code;
        if (reply.code) return reply.code;
        const SERVICE_STATUS_PROCESS status = WithProcess(reply.status, reply.process);
        *needed = sizeof status;
        if (size < sizeof status) return ERROR_INSUFFICIENT_BUFFER;
        std::memcpy(buffer, &status, sizeof status);
        return ERROR_SUCCESS;
    });
}

BOOL EnumServicesStatusW(SC_HANDLE manager, DWORD type, DWORD state, ENUM_SERVICE_STATUSW* services,
                         DWORD size, DWORD* needed, DWORD* count, DWORD* resume) noexcept {
    if (DWORD code = FaultDue("EnumServicesStatusW")) return Fail(code, FALSE);
    return Enumerate<ENUM_SERVICE_STATUSW>(manager, {type, state, {}, {}}, nullptr, services, size, needed,
                                           count, resume);
}

BOOL EnumServicesStatusExW(SC_HANDLE manager, SC_ENUM_TYPE level, DWORD type, DWORD state, BYTE* services,
                           DWORD size, DWORD* needed, DWORD* count, DWORD* resume,
                           const wchar_t* group) noexcept {
    if (DWORD code = FaultDue("EnumServicesStatusExW")) return Fail(code, FALSE);
    if (level != SC_ENUM_PROCESS_INFO) return Fail(ERROR_INVALID_LEVEL, FALSE);
    return Enumerate<ENUM_SERVICE_STATUS_PROCESSW>(manager, {type, state, {}, {}}, group, services, size,
                                                   needed, count, resume);
}

BOOL EnumDependentServicesW(SC_HANDLE service, DWORD state, ENUM_SERVICE_STATUSW* services, DWORD size,
                            DWORD* needed, DWORD* count) noexcept {
    if (DWORD code = FaultDue("EnumDependentServicesW")) return Fail(code, FALSE);
    if (!needed || !count || (!services && size)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    return WithServiceHandle<ServiceHandle>(service, [&](ServiceClient& client) {
        std::vector<ListedService> dependents;
        for (EnumReplyMessage reply{1, {}}; reply.goesOn;) {
            const auto skipped = static_cast<DWORD>(dependents.size());
            if (DWORD code = client.Ask(EnumDependentsMessage{state, skipped}, reply)) return code;
            if (reply.goesOn && reply.services.empty()) return DWORD{RPC_S_PROTOCOL_ERROR};
            std::ranges::move(reply.services, std::back_inserter(dependents));
        }
        return PutServices<ENUM_SERVICE_STATUSW>(dependents, 0, services, size, *needed, *count);
    });
}

}  // namespace Quellan::Platform
