// Privileges by name and number.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

struct LUID {
    DWORD LowPart;
    LONG HighPart;
};

struct LUID_AND_ATTRIBUTES {
    LUID Luid;
    DWORD Attributes;
};

inline constexpr DWORD SE_PRIVILEGE_ENABLED_BY_DEFAULT = 0x00000001;
inline constexpr DWORD SE_PRIVILEGE_ENABLED = 0x00000002;
inline constexpr DWORD SE_PRIVILEGE_REMOVED = 0x00000004;
inline constexpr DWORD SE_PRIVILEGE_USED_FOR_ACCESS = 0x80000000;

// In any case. 1313 (ERROR_NO_SUCH_PRIVILEGE), 1722 (RPC_S_SERVER_UNAVAILABLE) for another machine's.
TQLIB_API BOOL LookupPrivilegeValueW(const wchar_t* system, const wchar_t* name, LUID* privilege) noexcept;
// `size` counts characters, the terminator included on entry but not on return; 122
// (ERROR_INSUFFICIENT_BUFFER) with the size needed when it is too small.
TQLIB_API BOOL LookupPrivilegeNameW(const wchar_t* system, LUID* privilege, wchar_t* name,
                                    DWORD* size) noexcept;

}  // namespace Quellan::Platform
