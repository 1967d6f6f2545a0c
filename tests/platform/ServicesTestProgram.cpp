#include "ServicesTestProgram.h"

#include "support/Eventually.h"
#include "support/Role.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>

namespace Quellan::Corvel::Test {
namespace {

// One of the services of this process.
struct TestService {
    SERVICE_STATUS_HANDLE handle = nullptr;
    std::atomic<DWORD> state{SERVICE_START_PENDING};
    HANDLE stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    DWORD exitCode = 0;

    void Report(DWORD newState, DWORD ownCode = 0, DWORD checkPoint = 0, DWORD waitHint = 0) {
        state = newState;
        SERVICE_STATUS status{};
        status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
        status.dwCurrentState = newState;
        if (newState == SERVICE_RUNNING || newState == SERVICE_PAUSED)
            status.dwControlsAccepted =
                SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_PAUSE_CONTINUE | SERVICE_ACCEPT_PARAMCHANGE;
        status.dwWin32ExitCode = ownCode ? ERROR_SERVICE_SPECIFIC_ERROR : exitCode;
        status.dwServiceSpecificExitCode = ownCode;
        status.dwCheckPoint = checkPoint;
        status.dwWaitHint = waitHint;
        SetServiceStatus(handle, &status);
    }
};

std::filesystem::path PathOfStopFile() {
    const char* const root = std::getenv("TQLIB_ROOT");
    return std::filesystem::path(root ? root : "") / StopFile;
}

DWORD Handle(DWORD control, DWORD, void*, void* context) {
    auto& service = *static_cast<TestService*>(context);
    switch (control) {
        case SERVICE_CONTROL_STOP:
            service.Report(SERVICE_STOP_PENDING, 0, 1, 5000);
            SetEvent(service.stop);
            return 0;
        case SERVICE_CONTROL_PAUSE:
            service.Report(SERVICE_PAUSED);
            return 0;
        case SERVICE_CONTROL_CONTINUE:
            service.Report(SERVICE_RUNNING);
            return 0;
        case SERVICE_CONTROL_INTERROGATE:
            service.Report(service.state);
            return 0;
        case SERVICE_CONTROL_PARAMCHANGE:
            return 0;
        case CrashControl:
            std::_Exit(3);
        case RefuseControl:
            return RefusalCode;
        case SlowControl:
            Sleep(SlowControlMs);
            return 0;
        case FailControl:
            service.exitCode = FailureCode;
            SetEvent(service.stop);
            return 0;
        case StopByFileControl: {
            service.exitCode = FailureCode;
            const auto stopByFile = [](void* stopped) -> DWORD {
                return Eventually([] { return std::filesystem::exists(PathOfStopFile()); }) &&
                       SetEvent(static_cast<TestService*>(stopped)->stop);
            };
            CloseHandle(CreateThread(nullptr, 0, stopByFile, &service, 0, nullptr));
            return 0;
        }
        default:
            return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

void Main(DWORD count, wchar_t** arguments) {
    auto& service = *std::make_unique<TestService>().release();  // handlers are called until the process ends
    const std::wstring_view word = count > 1 ? arguments[1] : L"";
    service.handle = RegisterServiceCtrlHandlerExW(arguments[0], Handle, &service);
    if (!service.handle) std::_Exit(4);
    if (word == CountArguments) return service.Report(SERVICE_STOPPED, count);
    if (word == StartSlowly) {
        for (DWORD step = 1; step <= SlowSteps; ++step) {
            service.Report(SERVICE_START_PENDING, 0, step, 1000 * step);
            Sleep(SlowStepMs);
        }
    }
    service.Report(SERVICE_RUNNING);
    WaitForSingleObject(service.stop, INFINITE);
    service.Report(SERVICE_STOPPED);
    if (service.exitCode == FailureCode) std::filesystem::remove(PathOfStopFile());
}

// The services are those that the role's arguments name, or one of any name.
int RunServices(const RoleArguments& names) {
    if (ServeAll(names.empty() ? RoleArguments{"service"} : names, Main)) return 0;
    return GetLastError() == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT ? 63 : 1;
}

const Role g_service("service", RunServices);

}  // namespace
}  // namespace Quellan::Corvel::Test
