#include "sweep/Rows.h"

#include <algorithm>
#include <cctype>
#include <set>

namespace Quellan::Corvel::Test {

namespace {

std::vector<SweptOperation> AllRows() {
    std::vector<SweptOperation> all;
    for (const auto& rows :
         {CoreRows(), TextRows(), FileRows(), SecurityRows(), LogRows(), ThreadRows(), ServiceRows()})
        all.insert(all.end(), rows.begin(), rows.end());
    return all;
}

std::string RowName(const testing::TestParamInfo<SweptOperation>& row) {
    std::string name = row.param.name;
    std::erase_if(name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); });
    return name;
}

class Sweep : public testing::TestWithParam<SweptOperation> {};

TEST_P(Sweep, Allocations) {
    SweepAllocationsOf(GetParam());
}

TEST_P(Sweep, PlatformCalls) {
    SweepCallsOf(GetParam());
}

INSTANTIATE_TEST_SUITE_P(All, Sweep, testing::ValuesIn(AllRows()), RowName);

// Of the platform calls that the library makes, as its objects tell them on Linux, those that need no row.
const std::set<std::string> UnsweptCalls = {
    // They cannot fail, or only for arguments that the library never gives.
    "CharLowerBuffW",
    "CharUpperBuffW",
    "CompareStringOrdinal",
    "DeleteCriticalSection",
    "DispatchMessageW",
    "EnterCriticalSection",
    "EqualSid",
    "GetCommandLineW",
    "GetCurrentProcess",
    "GetCurrentProcessId",
    "GetCurrentThread",
    "GetCurrentThreadId",
    "GetDriveTypeW",
    "GetLastError",
    "GetLocalTime",
    "GetStdHandle",
    "GetSystemDefaultLCID",
    "GetSystemInfo",
    "GetSystemTime",
    "GetTickCount64",
    "GetUserDefaultLCID",
    "InitializeCriticalSection",
    "InitializeCriticalSectionEx",
    "IsBadReadPtr",
    "IsBadStringPtrW",
    "IsValidSid",
    "IsWellKnownSid",
    "LeaveCriticalSection",
    "LsaNtStatusToWinError",
    "OutputDebugStringW",
    "QueryPerformanceCounter",
    "SetLastError",
    "Sleep",
    "TranslateMessage",
    "CoAddRefServerProcess",
    "CoReleaseServerProcess",
    "QueryPerformanceFrequency",
    // They come on a thread that the library makes, and wait for what it keeps.
    "GetMessageW",
    "MsgWaitForMultipleObjectsEx",
    // Other tests make them fail: in a service, on a thread with a token, in a log that is put aside.
    "MoveFileExW",
    "RegisterServiceCtrlHandlerExW",
    "RevertToSelf",
    "SetServiceStatus",
    "SetThreadToken",
    "StartServiceCtrlDispatcherW",
    // It wants a terminal.
    "WriteConsoleW",
    // What ends something: nothing is left to be done about a failure.
    "CloseHandle",
    "CloseServiceHandle",
    "DeleteFileW",
    "DeregisterEventSource",
    "FindClose",
    "FreeLibrary",
    "FreeSid",
    "LocalFree",
    "LsaClose",
    "LsaFreeMemory",
    "NetApiBufferFree",
    "OpenThread",
    "RegCloseKey",
    "VirtualFree",
    // A yes or no: a failure is a no.
    "CompareObjectHandles",
    "GetConsoleMode",
    "PeekMessageW",
    "GetModuleHandleW",
    "LookupPrivilegeValueW",
    // A service in the foreground does without.
    "SetConsoleCtrlHandler",
};

// At the end of the whole program: each call of the library has failed in some row.
class AllCallsSwept : public testing::Environment {
  public:
    void TearDown() override {
        if (testing::GTEST_FLAG(filter) != "*") return;
        const std::set<std::string> swept(SweptCalls().begin(), SweptCalls().end());
        for (const char* call : LibraryCalls())
            EXPECT_TRUE(swept.contains(call) || UnsweptCalls.contains(call))
                << call << " never fails in a row";
    }

  private:
    static std::vector<const char*> LibraryCalls() {
        return {
#if __has_include("sweep/LibraryCalls.inc")
#include "sweep/LibraryCalls.inc"
#endif
        };
    }
};

const testing::Environment* const g_allCallsSwept = testing::AddGlobalTestEnvironment(new AllCallsSwept);

}  // namespace

}  // namespace Quellan::Corvel::Test
