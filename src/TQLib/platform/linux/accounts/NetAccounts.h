// What is known of the machine's users and groups: the calls of the network management.
//
// The groups that the machine keeps itself (/etc/group) are its local groups, those of a directory its global
// ones. Beside them are two built-in local groups: Administrators, whose members are user 0 and those of the
// groups "sudo", "wheel" and "admin", and Users, to which everybody belongs. Names are those of Accounts.h.
//
// These calls return their code and leave the last error alone. All of them: 53 (ERROR_BAD_NETPATH) for
// another machine, 124 (ERROR_INVALID_LEVEL) for levels not named here, 87 (ERROR_INVALID_PARAMETER), 1460
// (ERROR_TIMEOUT) when a directory does not answer, 8 (ERROR_NOT_ENOUGH_MEMORY). Answers are for
// NetApiBufferFree.
#pragma once

#include "TQLib/platform/linux/accounts/Sids.h"

namespace Quellan::Platform {

using NET_API_STATUS = DWORD;

inline constexpr NET_API_STATUS NERR_Success = 0;
inline constexpr DWORD MAX_PREFERRED_LENGTH = 0xFFFFFFFF;

TQLIB_API NET_API_STATUS NetApiBufferFree(void* buffer) noexcept;

struct USER_INFO_0 {
    wchar_t* usri0_name;
};

inline constexpr DWORD USER_PRIV_USER = 1;
inline constexpr DWORD USER_PRIV_ADMIN = 2;

struct USER_INFO_1 {
    wchar_t* usri1_name;
    wchar_t* usri1_password;   // null
    DWORD usri1_password_age;  // 0
    DWORD usri1_priv;          // USER_PRIV_ADMIN for administrators
    wchar_t* usri1_home_dir;
    wchar_t* usri1_comment;  // empty
    DWORD usri1_flags;
    wchar_t* usri1_script_path;  // empty
};

struct USER_INFO_10 {
    wchar_t* usri10_name;
    wchar_t* usri10_comment;      // empty
    wchar_t* usri10_usr_comment;  // empty
    wchar_t* usri10_full_name;
};

struct USER_INFO_20 {
    wchar_t* usri20_name;
    wchar_t* usri20_full_name;
    wchar_t* usri20_comment;  // empty
    DWORD usri20_flags;
    DWORD usri20_user_id;  // in the machine's domain
};

struct USER_INFO_23 {
    wchar_t* usri23_name;
    wchar_t* usri23_full_name;
    wchar_t* usri23_comment;  // empty
    DWORD usri23_flags;
    PSID usri23_user_sid;
};

inline constexpr DWORD UF_SCRIPT = 0x0001;          // always
inline constexpr DWORD UF_ACCOUNTDISABLE = 0x0002;  // the password is locked, or the account has expired
inline constexpr DWORD UF_NORMAL_ACCOUNT = 0x0200;  // always

// Levels 0, 1, 10, 20, 23. 2221 (NERR_UserNotFound); 5 (ERROR_ACCESS_DENIED) for the levels with flags where
// the caller may not read the system's list of passwords.
TQLIB_API NET_API_STATUS NetUserGetInfo(const wchar_t* server, const wchar_t* user, DWORD level,
                                        BYTE** buffer) noexcept;

// Lists. The answer has as many entries as fit into `preferredSize` bytes, but one at least, and `total` says
// how many there are from the first of these on: 234 (ERROR_MORE_DATA) where that is more. `resume`, where
// there is one, is 0 for the first call and is handed to the next one for the entries that are left.

struct LOCALGROUP_USERS_INFO_0 {
    wchar_t* lgrui0_name;
};

inline constexpr DWORD LG_INCLUDE_INDIRECT = 0x0001;  // changes nothing: no group is a member of another one

// The local groups of a user. Level 0. 2221 (NERR_UserNotFound).
TQLIB_API NET_API_STATUS NetUserGetLocalGroups(const wchar_t* server, const wchar_t* user, DWORD level,
                                               DWORD flags, BYTE** buffer, DWORD preferredSize, DWORD* read,
                                               DWORD* total) noexcept;

struct GROUP_USERS_INFO_0 {
    wchar_t* grui0_name;
};

struct GROUP_USERS_INFO_1 {
    wchar_t* grui1_name;
    DWORD grui1_attributes;  // SE_GROUP_...
};

// The global groups of a user. Levels 0 and 1. 2221 (NERR_UserNotFound).
TQLIB_API NET_API_STATUS NetUserGetGroups(const wchar_t* server, const wchar_t* user, DWORD level,
                                          BYTE** buffer, DWORD preferredSize, DWORD* read,
                                          DWORD* total) noexcept;

struct LOCALGROUP_INFO_0 {
    wchar_t* lgrpi0_name;
};

struct LOCALGROUP_INFO_1 {
    wchar_t* lgrpi1_name;
    wchar_t* lgrpi1_comment;  // empty
};

// Levels 0 and 1.
TQLIB_API NET_API_STATUS NetLocalGroupEnum(const wchar_t* server, DWORD level, BYTE** buffer,
                                           DWORD preferredSize, DWORD* read, DWORD* total,
                                           DWORD_PTR* resume) noexcept;

struct LOCALGROUP_MEMBERS_INFO_0 {
    PSID lgrmi0_sid;
};

struct LOCALGROUP_MEMBERS_INFO_1 {
    PSID lgrmi1_sid;
    SID_NAME_USE lgrmi1_sidusage;
    wchar_t* lgrmi1_name;
};

struct LOCALGROUP_MEMBERS_INFO_2 {
    PSID lgrmi2_sid;
    SID_NAME_USE lgrmi2_sidusage;
    wchar_t* lgrmi2_domainandname;
};

struct LOCALGROUP_MEMBERS_INFO_3 {
    wchar_t* lgrmi3_domainandname;
};

// Levels 0 to 3. Those named in the group and those of the machine's own users whose group it is; not users
// of a directory whose group it is. 1376 (ERROR_NO_SUCH_ALIAS).
TQLIB_API NET_API_STATUS NetLocalGroupGetMembers(const wchar_t* server, const wchar_t* group, DWORD level,
                                                 BYTE** buffer, DWORD preferredSize, DWORD* read,
                                                 DWORD* total, DWORD_PTR* resume) noexcept;

inline constexpr DWORD PLATFORM_ID_NT = 500;

struct WKSTA_INFO_100 {
    DWORD wki100_platform_id;  // PLATFORM_ID_NT
    wchar_t* wki100_computername;
    wchar_t* wki100_langroup;  // the machine's own domain
    DWORD wki100_ver_major;
    DWORD wki100_ver_minor;
};

// Level 100.
TQLIB_API NET_API_STATUS NetWkstaGetInfo(wchar_t* server, DWORD level, BYTE** buffer) noexcept;

struct WKSTA_USER_INFO_0 {
    wchar_t* wkui0_username;
};

struct WKSTA_USER_INFO_1 {
    wchar_t* wkui1_username;
    wchar_t* wkui1_logon_domain;
    wchar_t* wkui1_oth_domains;  // empty
    wchar_t* wkui1_logon_server;
};

// The user as whom the thread acts. Levels 0 and 1; `reserved` must be null. 2221 (NERR_UserNotFound) for one
// without a name.
TQLIB_API NET_API_STATUS NetWkstaUserGetInfo(wchar_t* reserved, DWORD level, BYTE** buffer) noexcept;

}  // namespace Quellan::Platform
