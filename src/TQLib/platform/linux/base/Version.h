// The version of the platform that the layer presents.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

inline constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
inline constexpr BYTE VER_NT_WORKSTATION = 1;
inline constexpr BYTE VER_NT_DOMAIN_CONTROLLER = 2;
inline constexpr BYTE VER_NT_SERVER = 3;
inline constexpr WORD VER_SUITE_TERMINAL = 0x0010;
inline constexpr WORD VER_SUITE_SINGLEUSERTS = 0x0100;

struct OSVERSIONINFOW {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    WCHAR szCSDVersion[128];
};

struct OSVERSIONINFOEXW {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    WCHAR szCSDVersion[128];
    WORD wServicePackMajor;
    WORD wServicePackMinor;
    WORD wSuiteMask;
    BYTE wProductType;
    BYTE wReserved;
};

// Fills either record; the size tells which. The same on every machine: version 10.0 of the NT platform
// without build number or service pack, a workstation, with the suite mask VER_SUITE_TERMINAL, since a Linux
// machine serves any number of users at once: objects known to all of them need the prefix "Global\". FALSE
// with 122 (ERROR_INSUFFICIENT_BUFFER) for another size.
TQLIB_API BOOL GetVersionExW(OSVERSIONINFOW* version) noexcept;

}  // namespace Quellan::Platform
