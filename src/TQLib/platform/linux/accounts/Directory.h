// The system's users and groups, asked of whatever its name service is configured to use, which may be slow
// or not answer at all: every question has a deadline. A call that asks several questions gives all of them
// the one it took at its beginning, so that it never takes longer than the limit: DirectoryLimitMs, or what
// the environment variable TQLIB_DIRECTORY_LIMIT_MS says. Questions are asked by a few threads of their own
// that never impersonate anybody; one that gets no answer keeps its thread until it does.
#pragma once

#include "TQLib/platform/linux/base/Futex.h"

#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Platform {

constexpr DWORD DirectoryLimitMs = 5000;

struct UserRecord {
    std::string name;
    DWORD id = 0;
    DWORD group = 0;
    std::string comment;
    std::string home;
};

struct GroupRecord {
    std::string name;
    DWORD id = 0;
    std::vector<std::string> members;  // beside those whose own group it is
};

// The one for a call that begins now.
Deadline DirectoryDeadline();

// 1332 (ERROR_NONE_MAPPED) for what there is not, 1460 (ERROR_TIMEOUT) without an answer in time. These may
// throw std::bad_alloc.
DWORD FindUser(std::string_view name, UserRecord& user, Deadline deadline);
DWORD FindUser(DWORD id, UserRecord& user, Deadline deadline);
DWORD FindGroup(std::string_view name, GroupRecord& group, Deadline deadline);
DWORD FindGroup(DWORD id, GroupRecord& group, Deadline deadline);
// The ids of all groups of a user, his own first.
DWORD FindGroupsOf(const UserRecord& user, std::vector<DWORD>& groups, Deadline deadline);

// What the machine itself keeps (/etc/passwd, /etc/group), in the order of the file. Without limits: no
// directory is asked.
DWORD ReadLocalUsers(std::vector<UserRecord>& users);
DWORD ReadLocalGroups(std::vector<GroupRecord>& groups);

// Whether a user is kept from logging on: his password is locked or his account has expired. False where the
// machine has nothing about it. 5 (ERROR_ACCESS_DENIED) for callers that may not know.
DWORD ReadIsDisabled(const UserRecord& user, bool& disabled, Deadline deadline);

}  // namespace Quellan::Platform
