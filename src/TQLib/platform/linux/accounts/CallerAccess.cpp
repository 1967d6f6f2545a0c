#include "TQLib/platform/linux/accounts/CallerAccess.h"

#include "TQLib/platform/AccessRules.h"
#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/Directory.h"
#include "TQLib/platform/linux/accounts/PrivilegeNames.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/ErrorCodes.h"
#include "TQLib/platform/linux/base/Identity.h"

#include <vector>

namespace Quellan::Platform {

DWORD CheckCaller(std::span<const BYTE> descriptor, const GenericRights& rights, DWORD wanted,
                  DWORD& granted) {
    const Identity caller = ActingIdentity();
    std::vector<DWORD> ids{caller.group};
    ids.insert(ids.end(), caller.groups.begin(), caller.groups.end());
    bool isAdministrator = caller.user == 0;
    if (!isAdministrator)
        if (DWORD code = FindIsAdministrator(caller.user, ids, isAdministrator, DirectoryDeadline()))
            return code;

    std::vector<SidValue> sids;
    for (const DWORD id : ids)
        if (const auto sid = SidOfAccount({.isGroup = true, .id = id})) sids.push_back(*sid);
    for (const auto type : {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid})
        sids.push_back(FindWellKnownSid(type)->Sid());
    if (caller.user == 0) sids.push_back(FindWellKnownSid(WinLocalSystemSid)->Sid());
    std::vector<SubjectId> groups;
    groups.reserve(sids.size() + 1);
    for (const SidValue& sid : sids)
        groups.push_back({&sid, SE_GROUP_ENABLED});
    const SidValue administrators = FindWellKnownSid(WinBuiltinAdministratorsSid)->Sid();
    if (isAdministrator)
        groups.push_back({&administrators, caller.user == 0 ? SE_GROUP_ENABLED : SE_GROUP_USE_FOR_DENY_ONLY});

    const auto user = SidOfAccount({.isGroup = false, .id = caller.user});
    const Powers powers(caller.user, {caller.capabilities, caller.capabilities});
    const auto enabled = [&](std::wstring_view name, SubjectPrivilege privilege) -> DWORD {
        return powers.Enables(*FindPrivilege(name)) ? DWORD{privilege} : 0;
    };
    AccessSubject subject;
    if (user) subject.user = {&*user, SE_GROUP_ENABLED};
    subject.groups = groups;
    subject.isHeldByLevels = false;
    subject.privileges = enabled(L"SeSecurityPrivilege", SecurityPrivilege) |
                         enabled(L"SeTakeOwnershipPrivilege", TakeOwnershipPrivilege);
    AccessQuestion question;
    question.descriptor = descriptor;
    question.wanted = MapGenericRights(rights, wanted);
    question.rights = rights;
    const AccessAnswer answer = CheckAccess(subject, question);
    granted = answer.granted;
    switch (answer.code) {
        case AccessCode::Granted:
            return ERROR_SUCCESS;
        case AccessCode::PrivilegeMissing:
            return ERROR_PRIVILEGE_NOT_HELD;
        default:
            return ERROR_ACCESS_DENIED;
    }
}

}  // namespace Quellan::Platform
