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
// "admin" as one used to deny only. The supplementary groups of the system may be disabled, the others are
// mandatory.
//
// Privileges stand for the kernel's capabilities, which are a thread's own; some the layer alone keeps. The
// token of the process is what the kernel says of the calling thread: what is changed there is changed for
// that thread and for those that it makes afterwards, and no other one. A thread that impersonates has the
// capabilities of its token; those that belong to no privilege are the process's when the token was made.
//
// A token may say what the kernel cannot keep: restricting identifiers, a lower integrity level, the user or a
// group of the system used to deny only. Such a token can be made and asked, and no thread can act by it.
#pragma once

#include "TQLib/platform/linux/accounts/Privileges.h"
#include "TQLib/platform/linux/accounts/Sids.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

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
    TokenDefaultDacl = 6,
    TokenSource = 7,
    TokenType = 8,
    TokenImpersonationLevel = 9,
    TokenStatistics = 10,
    TokenRestrictedSids = 11,
    TokenSessionId = 12,
    TokenElevationType = 18,
    TokenLinkedToken = 19,
    TokenElevation = 20,
    TokenHasRestrictions = 21,
    TokenIntegrityLevel = 25,
    TokenUIAccess = 26,
    TokenMandatoryPolicy = 27,
};

enum TOKEN_ELEVATION_TYPE : int {
    TokenElevationTypeDefault = 1,
    TokenElevationTypeFull,
    TokenElevationTypeLimited,
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

// Null for no list, which allows everybody everything.
struct TOKEN_DEFAULT_DACL {
    ACL* DefaultDacl;
};

struct TOKEN_SOURCE {
    char SourceName[8];
    LUID SourceIdentifier;
};

struct TOKEN_STATISTICS {
    LUID TokenId;           // of one token; all handles to it tell the same
    LUID AuthenticationId;  // the user's id and the system's session
    LARGE_INTEGER ExpirationTime;
    TOKEN_TYPE TokenType;
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    DWORD DynamicCharged;  // 0, as the next one
    DWORD DynamicAvailable;
    DWORD GroupCount;
    DWORD PrivilegeCount;
    LUID ModifiedId;  // another one after each change
};

struct TOKEN_MANDATORY_POLICY {
    DWORD Policy;
};
inline constexpr DWORD TOKEN_MANDATORY_POLICY_NO_WRITE_UP = 1;

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
// groups when a directory does not answer, 1312 (ERROR_NO_SUCH_LOGON_SESSION) for TokenLinkedToken: nobody has
// two tokens. TokenSource needs TOKEN_QUERY_SOURCE instead. The session is that of the system's audit, 0 where
// there is none. Owner, primary group and list are those for new descriptors; the kernel gives new files the
// user, his group and the mode bits asked for.
TQLIB_API BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, void* information, DWORD size,
                                   DWORD* needed) noexcept;
// TokenOwner (1307, ERROR_INVALID_OWNER, for who is neither the user nor a group with SE_GROUP_OWNER),
// TokenPrimaryGroup (1308, ERROR_INVALID_PRIMARY_GROUP, for what is none of the groups), TokenDefaultDacl (1336,
// ERROR_INVALID_ACL) and TokenIntegrityLevel: 1314 (ERROR_PRIVILEGE_NOT_HELD) for a higher one, 50
// (ERROR_NOT_SUPPORTED) for the token of the process and for one by which a thread acts. 5
// (ERROR_ACCESS_DENIED) without TOKEN_ADJUST_DEFAULT, 24 (ERROR_BAD_LENGTH), 87 for other classes, 1337
// (ERROR_INVALID_SID).
TQLIB_API BOOL SetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, void* information,
                                   DWORD size) noexcept;

// Enables, disables and removes privileges; `disableAll` disables those that are held, whatever `wanted` says. The
// kernel knows of it at once, where the token is that of the process or the one by which the calling thread acts;
// 50 (ERROR_NOT_SUPPORTED) where another thread does, and for the process's while the calling thread
// impersonates. Succeeds with the last error 1300 (ERROR_NOT_ALL_ASSIGNED) where one is not held, the others
// being changed, else with 0. `previous` receives those that this has changed, in the state before, with
// TOKEN_QUERY alone; 122 (ERROR_INSUFFICIENT_BUFFER) with the size in `needed`, which it takes, and nothing
// changed. 5 (ERROR_ACCESS_DENIED) without TOKEN_ADJUST_PRIVILEGES, 87 (ERROR_INVALID_PARAMETER).
TQLIB_API BOOL AdjustTokenPrivileges(HANDLE token, BOOL disableAll, TOKEN_PRIVILEGES* wanted, DWORD size,
                                     TOKEN_PRIVILEGES* previous, DWORD* needed) noexcept;
// The same for groups, of which SE_GROUP_ENABLED in `wanted` is looked at; `reset` puts all back to what they
// were at first. 1310 (ERROR_CANT_DISABLE_MANDATORY), 629 (ERROR_CANT_ENABLE_DENY_ONLY), 1314
// (ERROR_PRIVILEGE_NOT_HELD) for a thread that acts by the token and may not choose its groups, with nothing
// changed. 50 (ERROR_NOT_SUPPORTED) also for the token of the process.
TQLIB_API BOOL AdjustTokenGroups(HANDLE token, BOOL reset, TOKEN_GROUPS* wanted, DWORD size,
                                 TOKEN_GROUPS* previous, DWORD* needed) noexcept;

// A token of the same type and level that may less: without the privileges deleted, with the identifiers
// disabled serving to deny only (those that it does not have are skipped), and where there are restricting ones
// with two checks, the second by these alone. Of a token that is restricted already those remain that both have.
// 87 (ERROR_INVALID_PARAMETER) for other flags, 1313 (ERROR_NO_SUCH_PRIVILEGE), 1337 (ERROR_INVALID_SID), 5
// (ERROR_ACCESS_DENIED) without TOKEN_DUPLICATE.
inline constexpr DWORD DISABLE_MAX_PRIVILEGE = 1;  // all privileges but SeChangeNotifyPrivilege
inline constexpr DWORD WRITE_RESTRICTED = 8;       // the second check for writing only
TQLIB_API BOOL CreateRestrictedToken(HANDLE token, DWORD flags, DWORD disabledCount,
                                     SID_AND_ATTRIBUTES* disabled, DWORD deletedCount,
                                     LUID_AND_ATTRIBUTES* deleted, DWORD restrictingCount,
                                     SID_AND_ATTRIBUTES* restricting, HANDLE* restricted) noexcept;
// Whether it has restricting identifiers. The last error is 0 where it has none; 6 (ERROR_INVALID_HANDLE), 5
// (ERROR_ACCESS_DENIED) without TOKEN_QUERY.
TQLIB_API BOOL IsTokenRestricted(HANDLE token) noexcept;

// A token of the same user. `access` 0 grants what the first one does. 5 (ERROR_ACCESS_DENIED) without
// TOKEN_DUPLICATE, 1346 (ERROR_BAD_IMPERSONATION_LEVEL) for a higher level than an impersonation token has and
// for a primary one of a token whose level does not suffice to impersonate, 87 (ERROR_INVALID_PARAMETER) for what
// is no type or level.
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
// (ERROR_NOT_SUPPORTED) for another thread and for what the kernel cannot keep. Null, and a token by which the
// thread has acted since it last was the process itself, need no memory. A thread that cannot become the process
// again ends the process.
TQLIB_API BOOL SetThreadToken(HANDLE* thread, HANDLE token) noexcept;
TQLIB_API BOOL RevertToSelf() noexcept;
// The same with a token of either type, which must grant TOKEN_QUERY, a primary one TOKEN_DUPLICATE too.
TQLIB_API BOOL ImpersonateLoggedOnUser(HANDLE token) noexcept;
// With a copy of the process's own token, which needs no right.
TQLIB_API BOOL ImpersonateSelf(SECURITY_IMPERSONATION_LEVEL level) noexcept;

// Whether an identifier is the user or among the enabled groups of an impersonation token, with null of the
// thread, or of the process where the thread has none; where the token has restricting identifiers for all
// rights, whether it is among these too. 1309 (ERROR_NO_IMPERSONATION_TOKEN) for a primary
// token, 1337 (ERROR_INVALID_SID), 1460 (ERROR_TIMEOUT), 5 (ERROR_ACCESS_DENIED) without TOKEN_QUERY.
TQLIB_API BOOL CheckTokenMembership(HANDLE token, PSID sid, BOOL* isMember) noexcept;

}  // namespace Quellan::Platform
