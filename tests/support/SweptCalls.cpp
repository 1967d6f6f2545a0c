#include "TQLib/platform/Win32.h"
#include "support/Sweep.h"

namespace Quellan::Corvel::Test {

namespace {

constexpr std::uintptr_t No = 0;  // FALSE, a null handle, no characters
constexpr std::uintptr_t NoFile = ~std::uintptr_t{0};

// Where the code is the result, as the registry's calls have it.
PlatformCall ResultIsCode(const char* name, DWORD code) {
    return {name, code, {code}};
}

}  // namespace

const std::vector<PlatformCall>& FailingCalls() {
    static const std::vector<PlatformCall> calls = {
        // Handles, waits and threads.
        {"CreateEventW", No, {ERROR_NO_SYSTEM_RESOURCES, ERROR_INVALID_HANDLE}},
        {"CreateMutexW", No, {ERROR_NO_SYSTEM_RESOURCES, ERROR_ACCESS_DENIED}},
        {"CreateThread", No, {ERROR_NOT_ENOUGH_MEMORY, ERROR_MAX_THRDS_REACHED}},
        {"ResumeThread", 0xFFFFFFFF, {ERROR_INVALID_HANDLE}},
        {"SetEvent", No, {ERROR_INVALID_HANDLE}},
        {"ResetEvent", No, {ERROR_INVALID_HANDLE}},
        {"ReleaseMutex", No, {ERROR_INVALID_HANDLE}},
        {"WaitForSingleObject", WAIT_FAILED, {ERROR_NOT_ENOUGH_MEMORY}},
        {"WaitForMultipleObjects", WAIT_FAILED, {ERROR_NOT_ENOUGH_MEMORY}},
        {"PostThreadMessageW", No, {ERROR_NOT_ENOUGH_QUOTA, ERROR_INVALID_THREAD_ID}},
        {"GetThreadPriority", 0x7FFFFFFF, {ERROR_INVALID_HANDLE}},
        {"SetThreadPriority", No, {ERROR_ACCESS_DENIED}},
        {"GetThreadTimes", No, {ERROR_INVALID_HANDLE}},
        {"CreateIoCompletionPort", No, {ERROR_NO_SYSTEM_RESOURCES}},
        {"PostQueuedCompletionStatus", No, {ERROR_NO_SYSTEM_RESOURCES}},
        {"GetQueuedCompletionStatus", No, {ERROR_INVALID_HANDLE}},
        {"GetVersionExW", No, {ERROR_INSUFFICIENT_BUFFER}},
        // Memory.
        {"VirtualAlloc", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"VirtualLock", No, {ERROR_WORKING_SET_QUOTA}},
        {"LocalAlloc", No, {ERROR_NOT_ENOUGH_MEMORY}},
        // Texts, modules and the process.
        {"FormatMessageW", No, {ERROR_MR_MID_NOT_FOUND, ERROR_NOT_ENOUGH_MEMORY}},
        {"LoadStringW", No, {ERROR_RESOURCE_NAME_NOT_FOUND}},
        {"GetModuleBaseNameW", No, {ERROR_INVALID_HANDLE, ERROR_NOT_ENOUGH_MEMORY}},
        {"GetModuleFileNameW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"GetModuleHandleExW", No, {ERROR_MOD_NOT_FOUND}},
        {"LoadLibraryExW", No, {ERROR_MOD_NOT_FOUND, ERROR_NOT_ENOUGH_MEMORY}},
        {"EnumProcessModules", No, {ERROR_PARTIAL_COPY}},
        {"MultiByteToWideChar", No, {ERROR_NO_UNICODE_TRANSLATION}},
        {"WideCharToMultiByte", No, {ERROR_NO_UNICODE_TRANSLATION}},
        {"GetLocaleInfoW", No, {ERROR_INVALID_FLAGS}},
        {"GetTimeFormatW", No, {ERROR_INVALID_FLAGS}},
        {"CommandLineToArgvW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"GetEnvironmentVariableW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"ExpandEnvironmentStringsW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"GetComputerNameW", No, {ERROR_BUFFER_OVERFLOW}},
        {"SetConsoleCtrlHandler", No, {ERROR_NOT_ENOUGH_MEMORY}},
        // Files.
        {"CreateFileW", NoFile, {ERROR_TOO_MANY_OPEN_FILES, ERROR_ACCESS_DENIED}},
        {"ReadFile", No, {ERROR_CRC}},
        {"WriteFile", No, {ERROR_DISK_FULL}},
        {"FlushFileBuffers", No, {ERROR_WRITE_FAULT}},
        {"UnlockFile", No, {ERROR_NOT_LOCKED}},
        {"SetEndOfFile", No, {ERROR_DISK_FULL}},
        {"SetFilePointerEx", No, {ERROR_NEGATIVE_SEEK}},
        {"GetFileSizeEx", No, {ERROR_INVALID_HANDLE}},
        {"MoveFileExW", No, {ERROR_SHARING_VIOLATION}},
        {"GetFullPathNameW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"GetTempPathW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"GetVolumePathNameW", No, {ERROR_FILENAME_EXCED_RANGE}},
        // The registry.
        ResultIsCode("RegCreateKeyExW", ERROR_ACCESS_DENIED),
        ResultIsCode("RegOpenKeyExW", ERROR_ACCESS_DENIED),
        ResultIsCode("RegConnectRegistryW", 53),
        ResultIsCode("RegDeleteTreeW", ERROR_ACCESS_DENIED),
        ResultIsCode("RegDeleteValueW", ERROR_ACCESS_DENIED),
        ResultIsCode("RegEnumKeyExW", ERROR_NOT_ENOUGH_MEMORY),
        ResultIsCode("RegEnumValueW", ERROR_NOT_ENOUGH_MEMORY),
        ResultIsCode("RegFlushKey", 1016),
        ResultIsCode("RegQueryValueExW", ERROR_NOT_ENOUGH_MEMORY),
        ResultIsCode("RegSetValueExW", ERROR_DISK_FULL),
        // The event log.
        {"RegisterEventSourceW", No, {ERROR_ACCESS_DENIED, ERROR_NOT_ENOUGH_MEMORY}},
        {"ReportEventW", No, {1502}},
        // Services.
        {"OpenSCManagerW", No, {ERROR_ACCESS_DENIED, 1722}},
        {"OpenServiceW", No, {ERROR_ACCESS_DENIED}},
        {"CreateServiceW", No, {ERROR_ACCESS_DENIED, 1078}},
        {"DeleteService", No, {ERROR_ACCESS_DENIED}},
        {"ChangeServiceConfig2W", No, {ERROR_ACCESS_DENIED}},
        {"ControlService", No, {1053}},
        {"EnumServicesStatusW", No, {ERROR_ACCESS_DENIED}},
        {"QueryServiceConfigW", No, {ERROR_ACCESS_DENIED}},
        {"QueryServiceConfig2W", No, {ERROR_ACCESS_DENIED}},
        {"QueryServiceStatus", No, {ERROR_INVALID_HANDLE}},
        {"QueryServiceStatusEx", No, {ERROR_INVALID_HANDLE}},
        {"StartServiceW", No, {1056}},
        // Identifiers, accounts and tokens.
        {"AllocateAndInitializeSid", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"ConvertSidToStringSidW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"CreateWellKnownSid", No, {ERROR_INVALID_PARAMETER}},
        {"GetWindowsAccountDomainSid", No, {1257}},
        {"LookupAccountNameW", No, {ERROR_NONE_MAPPED, 1789}},
        {"LookupAccountSidW", No, {ERROR_NONE_MAPPED, 1789}},
        {"LookupPrivilegeValueW", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"GetTokenInformation", No, {ERROR_NOT_ENOUGH_MEMORY}},
        {"OpenProcessToken", No, {ERROR_ACCESS_DENIED}},
        {"OpenThreadToken", No, {ERROR_ACCESS_DENIED}},
        {"SetThreadToken", No, {ERROR_ACCESS_DENIED}},
        {"LsaEnumerateAccountRights", 0xC0000022, {ERROR_ACCESS_DENIED}},
        {"LsaOpenPolicy", 0xC0000022, {ERROR_ACCESS_DENIED}},
        ResultIsCode("NetLocalGroupEnum", ERROR_ACCESS_DENIED),
        ResultIsCode("NetLocalGroupGetMembers", ERROR_ACCESS_DENIED),
        ResultIsCode("NetUserGetGroups", ERROR_ACCESS_DENIED),
        ResultIsCode("NetUserGetInfo", ERROR_ACCESS_DENIED),
        ResultIsCode("NetUserGetLocalGroups", ERROR_ACCESS_DENIED),
        ResultIsCode("NetWkstaGetInfo", ERROR_ACCESS_DENIED),
        ResultIsCode("NetWkstaUserGetInfo", ERROR_ACCESS_DENIED),
    };
    return calls;
}

}  // namespace Quellan::Corvel::Test
