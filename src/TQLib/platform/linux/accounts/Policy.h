// The policy of the machine: which rights its accounts have been given.
//
// Rights are privileges and rights to log on, by their published names. They stand in a text file that an
// administrator can read and change too (docs/formats/account-rights.md), one for the machine, whoever asks.
// Nothing follows from them by itself: what a process may do is the kernel's affair.
//
// These calls return an NTSTATUS value, which LsaNtStatusToWinError turns into a code, and leave the last
// error alone.
#pragma once

#include "TQLib/platform/linux/accounts/Sids.h"

namespace Quellan::Platform {

using NTSTATUS = LONG;
using BOOLEAN = BYTE;
using ACCESS_MASK = DWORD;
using LSA_HANDLE = void*;

// Sizes in bytes; no terminator is needed.
struct LSA_UNICODE_STRING {
    WORD Length;
    WORD MaximumLength;
    wchar_t* Buffer;
};

struct LSA_OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    LSA_UNICODE_STRING* ObjectName;
    ULONG Attributes;
    void* SecurityDescriptor;
    void* SecurityQualityOfService;
};

inline constexpr ACCESS_MASK POLICY_VIEW_LOCAL_INFORMATION = 0x00000001;
inline constexpr ACCESS_MASK POLICY_CREATE_ACCOUNT = 0x00000010;
inline constexpr ACCESS_MASK POLICY_LOOKUP_NAMES = 0x00000800;
inline constexpr ACCESS_MASK POLICY_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x00000FFF;

// `attributes` is needed and not used. The handle grants `access`, MAXIMUM_ALLOWED for everything; it is for
// LsaClose. 0xC0020017 (RPC_NT_SERVER_UNAVAILABLE) for another machine, 0xC000000D
// (STATUS_INVALID_PARAMETER).
TQLIB_API NTSTATUS LsaOpenPolicy(LSA_UNICODE_STRING* system, LSA_OBJECT_ATTRIBUTES* attributes,
                                 ACCESS_MASK access, LSA_HANDLE* policy) noexcept;
// 0xC0000008 (STATUS_INVALID_HANDLE).
TQLIB_API NTSTATUS LsaClose(LSA_HANDLE policy) noexcept;

// All of them: 0xC0000008 (STATUS_INVALID_HANDLE), 0xC0000022 (STATUS_ACCESS_DENIED) for a handle without
// POLICY_LOOKUP_NAMES, to add without POLICY_CREATE_ACCOUNT too, and for files that the caller may not read
// or write or that somebody else could have written, 0xC0000078 (STATUS_INVALID_SID), 0xC000000D
// (STATUS_INVALID_PARAMETER), 0xC00000E4 (STATUS_INTERNAL_DB_CORRUPTION) for a file that cannot be
// understood.

// The rights of an account, for LsaFreeMemory. 0xC0000034 (STATUS_OBJECT_NAME_NOT_FOUND) for one without any.
TQLIB_API NTSTATUS LsaEnumerateAccountRights(LSA_HANDLE policy, PSID account, LSA_UNICODE_STRING** rights,
                                             ULONG* count) noexcept;
// All of the rights or none. Nothing happens to those that the account has. 0xC0000060
// (STATUS_NO_SUCH_PRIVILEGE) for a name that is no right's.
TQLIB_API NTSTATUS LsaAddAccountRights(LSA_HANDLE policy, PSID account, LSA_UNICODE_STRING* rights,
                                       ULONG count) noexcept;
// With `all` every one, whatever `rights` says. 0xC0000034 (STATUS_OBJECT_NAME_NOT_FOUND) for an account
// without any, 0xC0000060 (STATUS_NO_SUCH_PRIVILEGE).
TQLIB_API NTSTATUS LsaRemoveAccountRights(LSA_HANDLE policy, PSID account, BOOLEAN all,
                                          LSA_UNICODE_STRING* rights, ULONG count) noexcept;
TQLIB_API NTSTATUS LsaFreeMemory(void* buffer) noexcept;

// 317 (ERROR_MR_MID_NOT_FOUND) for a status that has no code here.
TQLIB_API ULONG LsaNtStatusToWinError(NTSTATUS status) noexcept;

}  // namespace Quellan::Platform
