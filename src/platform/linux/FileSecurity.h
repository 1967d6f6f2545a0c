// Whom files belong to, as security descriptors.
#pragma once

#include "platform/linux/Sids.h"

using PSECURITY_DESCRIPTOR = void*;
using SECURITY_INFORMATION = DWORD;
using SECURITY_DESCRIPTOR_CONTROL = WORD;

inline constexpr SECURITY_INFORMATION OWNER_SECURITY_INFORMATION = 0x1;
inline constexpr SECURITY_INFORMATION GROUP_SECURITY_INFORMATION = 0x2;

inline constexpr BYTE SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_OWNER_DEFAULTED = 0x0001;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_GROUP_DEFAULTED = 0x0002;
inline constexpr SECURITY_DESCRIPTOR_CONTROL SE_SELF_RELATIVE = 0x8000;

// A descriptor in one block, with its parts behind it. Offsets count from its beginning; 0 stands for a part
// that it does not have.
struct SECURITY_DESCRIPTOR_RELATIVE {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    DWORD Owner;
    DWORD Group;
    DWORD Sacl;
    DWORD Dacl;
};

// Reads owner and group of a file or folder, or of what a symbolic link leads to, into a descriptor in one
// block. `needed` receives its size: FALSE with 122 (ERROR_INSUFFICIENT_BUFFER) where `size` is smaller, with
// the code of opening the file where that is not to be found or reached, 1332 (ERROR_NONE_MAPPED) for an
// owner whose number no identifier has, 50 (ERROR_NOT_SUPPORTED) where other parts are wanted, 998
// (ERROR_NOACCESS) without `needed` or without a place for the descriptor.
TQLIB_API BOOL GetFileSecurityW(const WCHAR* path, SECURITY_INFORMATION wanted, void* descriptor, DWORD size,
                                DWORD* needed) noexcept;

// Where the part stands, null where the descriptor has none, and whether it is a default. FALSE with 1338
// (ERROR_INVALID_SECURITY_DESCR) for what is no descriptor in one block, 998 (ERROR_NOACCESS) without a place
// for an answer.
TQLIB_API BOOL GetSecurityDescriptorOwner(void* descriptor, PSID* owner, BOOL* isDefaulted) noexcept;
TQLIB_API BOOL GetSecurityDescriptorGroup(void* descriptor, PSID* group, BOOL* isDefaulted) noexcept;
