// The program of services that do not do as they should: the role "misbehaving". Its first argument says what
// they do, the others are the names in its table.
#include "ServicesTestProgram.h"
#include "support/Role.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Quellan::Corvel::Test {
namespace {

std::string g_behaviour;
std::string g_file;

struct Misbehaving {
    SERVICE_STATUS_HANDLE handle = nullptr;
    HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE nudge = CreateEventW(nullptr, FALSE, FALSE, nullptr);

    void Report(DWORD state, DWORD waitHint = 0, DWORD exitCode = 0) const {
        SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, 0, exitCode, 0, 0, waitHint};
        if (state == SERVICE_RUNNING)
            status.dwControlsAccepted = SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PARAMCHANGE;
        SetServiceStatus(handle, &status);
    }
};
// Of the service that starts late, which another one in its process tells to go on.
std::atomic<Misbehaving*> g_late{nullptr};

DWORD HandleBadly(DWORD control, DWORD, void*, void* context) {
    const auto& service = *static_cast<const Misbehaving*>(context);
    if (control == SERVICE_CONTROL_PARAMCHANGE) {
        if (const Misbehaving* const late = g_late) SetEvent(late->nudge);
        return 0;
    }
    if (control != SERVICE_CONTROL_STOP) return 0;
    if (g_behaviour == "hangs-in-handler") Sleep(INFINITE);
    if (g_behaviour == "says-nothing-in-stop") return 0;
    service.Report(SERVICE_STOP_PENDING, ShortHintMs);
    if (g_behaviour != "hangs-in-stop") SetEvent(service.stop);
    return 0;
}

void MisbehavingMain(DWORD, wchar_t** arguments) {
    auto& service = *new Misbehaving;  // handlers are called until the process ends
    if (g_behaviour == "never-registers") Sleep(INFINITE);
    if (g_behaviour == "exits-in-start") std::_Exit(3);
    if (g_behaviour == "counts-and-exits") {
        std::FILE* const file = std::fopen(g_file.c_str(), "a");
        std::fprintf(file, "%llu\n", static_cast<unsigned long long>(GetTickCount64()));
        std::fclose(file);
        std::_Exit(3);
    }
    service.handle = RegisterServiceCtrlHandlerExW(arguments[0], HandleBadly, &service);
    service.Report(SERVICE_START_PENDING, ShortHintMs);
    if (g_behaviour == "hangs-in-start") Sleep(INFINITE);
    // The same report again and again is no progress.
    while (g_behaviour == "repeats-its-start") {
        service.Report(SERVICE_START_PENDING, ShortHintMs);
        Sleep(1);
    }
    if (g_behaviour == "starts-late" && std::wstring(arguments[0]) == L"late") {
        g_late = &service;
        WaitForSingleObject(service.nudge, INFINITE);
    }
    for (int i = 0; g_behaviour == "floods" && i < 20'000; ++i)
        service.Report(i % 2 ? SERVICE_RUNNING : SERVICE_PAUSED);
    service.Report(SERVICE_RUNNING);
    if (g_behaviour != "floods") WaitForSingleObject(service.stop, INFINITE);
    service.Report(SERVICE_STOPPED, 0, g_behaviour == "floods" ? FailureCode : 0);
}

int RunMisbehaving(const RoleArguments& arguments) {
    g_behaviour = arguments.at(0);
    if (arguments.size() == 1) return ServeAll({"any"}, MisbehavingMain) ? 0 : 1;
    g_file = arguments.back();
    return ServeAll({arguments.begin() + 1, arguments.end()}, MisbehavingMain) ? 0 : 1;
}

const Role g_misbehaving("misbehaving", RunMisbehaving);

}  // namespace
}  // namespace Quellan::Corvel::Test
