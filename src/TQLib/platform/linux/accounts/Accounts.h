// Accounts: the names of identifiers and the identifiers of names.
//
// The system's users and groups are accounts of the machine's own domain, which has the machine's name. User
// 0 has the number 500 there, user u the number 2u + 1000, group g the number 2g + 1001. Groups that the
// machine itself keeps (/etc/group) are local groups, SidTypeAlias; those of a directory are SidTypeGroup.
// Where the system has a user and a group of one name the user is meant; "user:NAME" and "group:NAME" tell
// them apart.
//
// Names of users and groups have a case. A name is looked for in its exact spelling first, well-known or not,
// then without regard to case among the well-known names and in lower case among the others.
//
// A directory that does not answer within 5 seconds, or the milliseconds that the environment variable
// TQLIB_DIRECTORY_LIMIT_MS says, has not found the account.
#pragma once

#include "TQLib/platform/linux/accounts/Sids.h"

namespace Quellan::Platform {

// Sizes count characters, terminators included where a buffer is too small, on success without them. 1332
// (ERROR_NONE_MAPPED) where there is no name, 122 (ERROR_INSUFFICIENT_BUFFER) with both sizes where one is
// too small, 1337 (ERROR_INVALID_SID), 87 (ERROR_INVALID_PARAMETER) without a size or `use`, 1722
// (RPC_S_SERVER_UNAVAILABLE) for another machine.
TQLIB_API BOOL LookupAccountSidW(const wchar_t* system, PSID sid, wchar_t* name, DWORD* nameSize,
                                 wchar_t* domain, DWORD* domainSize, SID_NAME_USE* use) noexcept;
// A name alone, DOMAIN\name or name@domain; the name of a domain gives the domain. Codes and sizes are the
// same; the size of the identifier counts bytes.
TQLIB_API BOOL LookupAccountNameW(const wchar_t* system, const wchar_t* account, PSID sid, DWORD* sidSize,
                                  wchar_t* domain, DWORD* domainSize, SID_NAME_USE* use) noexcept;
// Of the user as whom the thread acts. The size includes the terminator, on success too. 122
// (ERROR_INSUFFICIENT_BUFFER) with the size needed, 1332 (ERROR_NONE_MAPPED) for a user without a name.
TQLIB_API BOOL GetUserNameW(wchar_t* name, DWORD* size) noexcept;

}  // namespace Quellan::Platform
