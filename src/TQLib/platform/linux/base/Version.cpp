#include "TQLib/platform/linux/base/Version.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"

#include <cstring>

namespace Quellan::Platform {

BOOL GetVersionExW(OSVERSIONINFOW* version) noexcept {
    if (DWORD code = FaultDue("GetVersionExW")) return Fail(code, FALSE);
    const DWORD size = version ? version->dwOSVersionInfoSize : 0;
    if (size != sizeof(OSVERSIONINFOW) && size != sizeof(OSVERSIONINFOEXW))
        return Fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    OSVERSIONINFOEXW presented{};
    presented.dwOSVersionInfoSize = size;
    presented.dwMajorVersion = 10;
    presented.dwPlatformId = VER_PLATFORM_WIN32_NT;
    presented.wSuiteMask = VER_SUITE_TERMINAL;
    presented.wProductType = VER_NT_WORKSTATION;
    // The shorter record is the beginning of the longer one.
    std::memcpy(version, &presented, size);
    return TRUE;
}

}  // namespace Quellan::Platform
