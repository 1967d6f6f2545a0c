// What tests of the service calls share: handles that are closed, a service program, waiting for a state.
#pragma once

#include "PlatformTest.h"
#include "support/Eventually.h"
#include "support/Role.h"

#include <memory>
#include <type_traits>
#include <vector>

namespace Quellan::Corvel::Test {

struct ServiceHandleClose {
    void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using OwnedService = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleClose>;

inline OwnedService OpenManager(DWORD access = SC_MANAGER_ALL_ACCESS) {
    return OwnedService(OpenSCManagerW(nullptr, nullptr, access));
}
inline OwnedService OpenNamed(const std::wstring& name, DWORD access = SERVICE_ALL_ACCESS) {
    return OwnedService(OpenServiceW(OpenManager(SC_MANAGER_CONNECT).get(), name.c_str(), access));
}

// What a service is made of. The program is this one, in the role "service", which says in
// ServicesTestProgram.cpp what its arguments mean.
struct ServiceRecord {
    std::wstring name;
    DWORD type = SERVICE_WIN32_OWN_PROCESS;
    DWORD start = SERVICE_DEMAND_START;
    std::wstring commandLine = ProgramInRole(L"service");
    std::wstring dependencies = {};  // with the terminators between them
    const wchar_t* account = nullptr;

    static std::wstring ProgramInRole(const std::wstring& role) {
        wchar_t path[MAX_PATH];
        GetModuleFileNameW(nullptr, path, MAX_PATH);
        return L'"' + std::wstring(path) + L"\" --role=" + role;
    }
};

inline OwnedService Create(const ServiceRecord& record, DWORD access = SERVICE_ALL_ACCESS) {
    const std::wstring dependencies = record.dependencies + L'\0';
    return OwnedService(CreateServiceW(OpenManager().get(), record.name.c_str(), nullptr, access, record.type,
                                       record.start, SERVICE_ERROR_NORMAL, record.commandLine.c_str(),
                                       nullptr, nullptr, dependencies.c_str(), record.account, nullptr));
}

// The codes of the calls.
inline DWORD Start(const OwnedService& service, const std::vector<std::wstring>& arguments = {}) {
    std::vector<const wchar_t*> pointers;
    for (const std::wstring& argument : arguments)
        pointers.push_back(argument.c_str());
    return CodeOf(StartServiceW(service.get(), static_cast<DWORD>(pointers.size()),
                                pointers.empty() ? nullptr : pointers.data()));
}
inline DWORD Control(const OwnedService& service, DWORD control) {
    SERVICE_STATUS status{};
    return CodeOf(ControlService(service.get(), control, &status));
}

inline SERVICE_STATUS_PROCESS StatusOf(const OwnedService& service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    EXPECT_EQ(CodeOf(QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                          reinterpret_cast<BYTE*>(&status), sizeof status, &needed)),
              0u);
    return status;
}
inline DWORD StateOf(const OwnedService& service) {
    return StatusOf(service).dwCurrentState;
}

constexpr ULONGLONG ServiceLimitMs = 20'000;

// Waits until the service's status fulfils a condition, and returns it; the last one when it never does.
template <class Condition>
SERVICE_STATUS_PROCESS WaitUntil(const OwnedService& service, Condition condition) {
    SERVICE_STATUS_PROCESS status{};
    EXPECT_TRUE(Eventually([&] { return condition(status = StatusOf(service)); }));
    return status;
}
inline SERVICE_STATUS_PROCESS WaitFor(const OwnedService& service, DWORD state) {
    const SERVICE_STATUS_PROCESS status =
        WaitUntil(service, [&](const SERVICE_STATUS_PROCESS& now) { return now.dwCurrentState == state; });
    EXPECT_EQ(status.dwCurrentState, state);
    return status;
}

inline DWORD StartAndWait(const OwnedService& service, const std::vector<std::wstring>& arguments = {}) {
    const DWORD code = Start(service, arguments);
    if (code == 0) WaitFor(service, SERVICE_RUNNING);
    return code;
}
inline DWORD StopAndWait(const OwnedService& service) {
    const DWORD code = Control(service, SERVICE_CONTROL_STOP);
    if (code == 0) WaitFor(service, SERVICE_STOPPED);
    return code;
}

}  // namespace Quellan::Corvel::Test
