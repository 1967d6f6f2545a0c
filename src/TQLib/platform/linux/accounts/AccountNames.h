// Accounts by name and by identifier, out of the well-known identifiers and the system's directory.
#pragma once

#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/accounts/Directory.h"

namespace Quellan::Platform {

struct AccountName {
    std::wstring name;
    std::wstring domain;
    SID_NAME_USE use = SidTypeUnknown;
};

// What a name begins with that is meant for one kind of account.
inline constexpr std::wstring_view UserKind = L"user:", GroupKind = L"group:";

// Whether a system's name means this machine: null, nothing, ".", "localhost" or the machine's own name, with
// or without backslashes before it.
bool IsThisMachine(const wchar_t* system) noexcept;

// All of these may throw std::bad_alloc. 1332 (ERROR_NONE_MAPPED), 1460 (ERROR_TIMEOUT).
DWORD FindNameOf(const void* sid, AccountName& name, Deadline deadline);
// `text` is a name, DOMAIN\name or name@domain.
DWORD FindSidOf(std::wstring_view text, SidValue& sid, AccountName& name, Deadline deadline);

// By a name without a domain, in its exact spelling or else in lower case.
DWORD FindUserNamed(std::wstring_view name, UserRecord& user, Deadline deadline);

// Whether the machine itself keeps a group; the others are the directory's.
DWORD ReadIsLocalGroup(DWORD id, bool& isLocal);

// Administrators are user 0 and the members of the groups whose members may become root by custom: "sudo",
// "wheel" and "admin". `groups` are all of the user's.
DWORD FindAdministrativeGroups(std::vector<DWORD>& ids, Deadline deadline);
DWORD FindIsAdministrator(DWORD user, const std::vector<DWORD>& groups, bool& isOne, Deadline deadline);

}  // namespace Quellan::Platform
