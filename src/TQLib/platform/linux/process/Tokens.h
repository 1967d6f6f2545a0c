// Access tokens: who a process or a thread is, and acting as somebody else.
//
// A token holds a user, his group, his other groups and his privileges as they were when it was made. A
// thread with a token acts as that user towards the kernel: files, processes and everything else that is
// opened is checked against him, and what is made belongs to him. That is per thread, takes effect at once
// and needs the right to take on identities (CAP_SETUID and CAP_SETGID, as root has them); without that only
// the process's own identity can be had. Threads begin as the process itself, whomever their maker
// impersonates, where CreateThread makes them; other threads inherit.
//
// While a thread impersonates, nobody in the process may call setuid, seteuid, setgroups and their kin of the
// C library, which change all threads; a program started by such a thread runs as the process's real user;
// and the process leaves no core dump. It is no protection from code in the same process, which can revert.
//
// In a token's groups are those of the system, Everyone, Authenticated Users and BUILTIN\Users; with
// BUILTIN\Administrators, for user 0 as a group that counts, for members of the groups "sudo", "wheel" and
// "admin" as one used to deny only. Privileges stand for the kernel's capabilities.
#pragma once

#include "TQLib/platform/linux/accounts/Privileges.h"
#include "TQLib/platform/linux/accounts/Sids.h"

namespace Quellan::Platform {

inline constexpr DWORD TOKEN_ASSIGN_PRIMARY = 0x0001;
inline constexpr DWORD TOKEN_DUPLICATE = 0x0002;
inline constexpr DWORD TOKEN_IMPERSONATE = 0x0004;
inline constexpr DWORD TOKEN_QUERY = 0x0008;
inline constexpr DWORD TOKEN_QUERY_SOURCE = 0x0010;
inline constexpr DWORD TOKEN_ADJUST_PRIVILEGES = 0x0020;
inline constexpr DWORD TOKEN_ADJUST_GROUPS = 0x0040;
inline constexpr DWORD TOKEN_ADJUST_DEFAULT = 0x0080;
inline constexpr DWORD TOKEN_ADJUST_SESSIONID = 0x0100;
inline constexpr DWORD TOKEN_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x01FF;

enum TOKEN_TYPE : int { TokenPrimary = 1, TokenImpersonation };

enum SECURITY_IMPERSONATION_LEVEL : int {
    SecurityAnonymous,
    SecurityIdentification,
    SecurityImpersonation,
    SecurityDelegation,
};

enum TOKEN_INFORMATION_CLASS : int {
    TokenUser = 1,
    TokenGroups = 2,
    TokenPrivileges = 3,
    TokenOwner = 4,
    TokenPrimaryGroup = 5,
    TokenType = 8,
    TokenImpersonationLevel = 9,
    TokenElevation = 20,
    TokenIntegrityLevel = 25,
};

struct TOKEN_USER {
    SID_AND_ATTRIBUTES User;
};

struct TOKEN_GROUPS {
    DWORD GroupCount;
    SID_AND_ATTRIBUTES Groups[1];  // as many as are counted
};

struct TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    LUID_AND_ATTRIBUTES Privileges[1];  // as many as are counted
};

struct TOKEN_OWNER {
    PSID Owner;
};

struct TOKEN_PRIMARY_GROUP {
    PSID PrimaryGroup;
};

struct TOKEN_ELEVATION {
    DWORD TokenIsElevated;
};

struct TOKEN_MANDATORY_LABEL {
    SID_AND_ATTRIBUTES Label;
};

// Tokens are closed by CloseHandle. `access` is what the handle grants, MAXIMUM_ALLOWED for everything.

// Of the calling process, whomever the thread impersonates. 50 (ERROR_NOT_SUPPORTED) for another process, 87
// (ERROR_INVALID_PARAMETER) without `token`.
TQLIB_API BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token) noexcept;
// Of a thread that impersonates somebody: 1008 (ERROR_NO_TOKEN) for others, 6 (ERROR_INVALID_HANDLE) for what
// is no thread's handle, 5 (ERROR_ACCESS_DENIED) for one that may not query, 87 (ERROR_INVALID_PARAMETER)
// without `token`. `openAsSelf` changes nothing.
TQLIB_API BOOL OpenThreadToken(HANDLE thread, DWORD access, BOOL openAsSelf, HANDLE* token) noexcept;

// Stands for the token of whom the calling thread acts as, to be queried; it needs no closing.
inline HANDLE GetCurrentThreadEffectiveToken() noexcept {
    return reinterpret_cast<HANDLE>(~ULONG_PTR{5});
}

// 6 (ERROR_INVALID_HANDLE), 5 (ERROR_ACCESS_DENIED) without TOKEN_QUERY, 122 (ERROR_INSUFFICIENT_BUFFER) with
// the size needed, 87 (ERROR_INVALID_PARAMETER) for classes not named here and for the impersonation level of
// a primary token, 1332 (ERROR_NONE_MAPPED) for a user without an identifier, 1460 (ERROR_TIMEOUT) for the
// groups when a directory does not answer.
TQLIB_API BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size,
                                   DWORD* needed) noexcept;

// A token of the same user. `access` 0 grants what the first one does. 5 (ERROR_ACCESS_DENIED) without
// TOKEN_DUPLICATE, 1346 (ERROR_BAD_IMPERSONATION_LEVEL) for a higher level than an impersonation token has,
// 87 (ERROR_INVALID_PARAMETER) for what is no type or level.
TQLIB_API BOOL DuplicateTokenEx(HANDLE token, DWORD access, SECURITY_ATTRIBUTES* security,
                                SECURITY_IMPERSONATION_LEVEL level, TOKEN_TYPE type,
                                HANDLE* duplicate) noexcept;

// A token for a user of this machine, who is not asked: only a process that may take on any identity can make
// one (1314, ERROR_PRIVILEGE_NOT_HELD), so the password must be null or empty (50, ERROR_NOT_SUPPORTED,
// otherwise) and a disabled account is as good as another one. A primary token, for LOGON32_LOGON_NETWORK one
// for impersonation. `domain` is null, "." or the machine's name. 1326 (ERROR_LOGON_FAILURE) for an unknown
// user or domain, 1460 (ERROR_TIMEOUT) when a directory does not answer, 87 (ERROR_INVALID_PARAMETER).
inline constexpr DWORD LOGON32_LOGON_INTERACTIVE = 2;
inline constexpr DWORD LOGON32_LOGON_NETWORK = 3;
inline constexpr DWORD LOGON32_LOGON_BATCH = 4;
inline constexpr DWORD LOGON32_LOGON_SERVICE = 5;
inline constexpr DWORD LOGON32_PROVIDER_DEFAULT = 0;
TQLIB_API BOOL LogonUserW(const wchar_t* user, const wchar_t* domain, const wchar_t* password, DWORD type,
                          DWORD provider, HANDLE* token) noexcept;

// Makes the calling thread, whose handle or null `thread` points to, act as the token's user, or with null as
// the process itself again. On failure it acts as before: 1314 (ERROR_PRIVILEGE_NOT_HELD), 6
// (ERROR_INVALID_HANDLE), 5 (ERROR_ACCESS_DENIED) without TOKEN_IMPERSONATE, 1349 (ERROR_BAD_TOKEN_TYPE) for
// a primary token, 1346 (ERROR_BAD_IMPERSONATION_LEVEL) for a level below SecurityImpersonation, 50
// (ERROR_NOT_SUPPORTED) for another thread. A thread that cannot become the process again ends the process.
TQLIB_API BOOL SetThreadToken(HANDLE* thread, HANDLE token) noexcept;
TQLIB_API BOOL RevertToSelf() noexcept;
// The same with a token of either type, which must grant TOKEN_QUERY, a primary one TOKEN_DUPLICATE too.
TQLIB_API BOOL ImpersonateLoggedOnUser(HANDLE token) noexcept;
// With a copy of the process's own token, which needs no right.
TQLIB_API BOOL ImpersonateSelf(SECURITY_IMPERSONATION_LEVEL level) noexcept;

// Whether an identifier is the user or among the enabled groups of an impersonation token, with null of the
// thread, or of the process where the thread has none. 1309 (ERROR_NO_IMPERSONATION_TOKEN) for a primary
// token, 1337 (ERROR_INVALID_SID), 1460 (ERROR_TIMEOUT), 5 (ERROR_ACCESS_DENIED) without TOKEN_QUERY.
TQLIB_API BOOL CheckTokenMembership(HANDLE token, PSID sid, BOOL* isMember) noexcept;

}  // namespace Quellan::Platform
