// What is known of the account behind an identifier: its groups, its rights, whether it is disabled.
#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/SecIDArray.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "TQLib/security/internal/DirectoryGroups.h"
#include "TQLib/security/internal/NetBuffer.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <algorithm>

namespace Quellan::Sarvek {

using Corvel::About;
using Corvel::TQString;
using Corvel::TQSysException;

namespace {

struct PolicyClose : Corvel::_TQNullHandle<LSA_HANDLE> {
    static void Close(LSA_HANDLE policy) noexcept { LsaClose(policy); }
};

struct RightsClose : Corvel::_TQNullHandle<LSA_UNICODE_STRING*> {
    static void Close(LSA_UNICODE_STRING* rights) noexcept { LsaFreeMemory(rights); }
};

void Check(DWORD code) {
    if (code != NERR_Success) throw TQSysException(code, L"SecID::MemberOfList");
}

// Visits the entries of a list, which may be told in several parts; gives the code of the call.
template <class Entry, class Call, class Visit>
DWORD ForEach(Call call, Visit visit) {
    DWORD_PTR resume = 0;
    do {
        NetBuffer buffer;
        DWORD count = 0;
        DWORD total = 0;
        const DWORD code = call(buffer.Put(), &count, &total, &resume);
        if (code != NERR_Success && code != ERROR_MORE_DATA) return code;
        for (DWORD i = 0; i < count; ++i)
            visit(buffer.As<Entry>()[i]);
    } while (resume != 0);
    return NERR_Success;
}

// Where the system has a user of the same name as well, the second spelling means the group.
SecID GroupNamed(const wchar_t* name) {
    SecID group(name);
    if (group.Use() != SidTypeUser) return group;
    return SecID(TQString::Format(L"group:%s", name).c_str());
}

void AddOnce(SecIDArray& groups, SecID group) {
    if (!groups.Contains(group)) groups.Add(std::move(group));
}

void ThrowStatus(NTSTATUS status) {
    if (status < 0) throw TQSysException(LsaNtStatusToWinError(status), L"SecID::PrivilegesHeld");
}

void AddRights(SecPrivilegeSet& set, LSA_HANDLE policy, const SecID& id) {
    constexpr auto HasNone = static_cast<NTSTATUS>(0xC0000034);
    Corvel::TQUniqueHandle<RightsClose> rights;
    ULONG count = 0;
    const NTSTATUS status = LsaEnumerateAccountRights(policy, id.Address(), rights.Put(), &count);
    if (status == HasNone) return;
    ThrowStatus(status);
    for (ULONG i = 0; i < count; ++i)
        set.Add(TQString(rights.Get()[i].Buffer, rights.Get()[i].Length / sizeof(wchar_t)));
}

}  // namespace

SecIDArray SecID::GetMemberOfLocalGroupsByEnum(bool indirect, int use) const {
    SecIDArray groups;
    const auto isMember = [&](const LOCALGROUP_MEMBERS_INFO_1& member) {
        if (member.lgrmi1_sidusage == use && *this == member.lgrmi1_sid) return true;
        return indirect &&
               std::ranges::any_of(groups, [&](const SecID& group) { return group == member.lgrmi1_sid; });
    };
    const auto listsMember = [&](const wchar_t* group) {
        bool isListed = false;
        About(L"Enumerating Local Group Members", [&] {
            Check(ForEach<LOCALGROUP_MEMBERS_INFO_1>(
                [&](BYTE** buffer, DWORD* count, DWORD* total, DWORD_PTR* resume) {
                    return NetLocalGroupGetMembers(nullptr, group, 1, buffer, MAX_PREFERRED_LENGTH, count,
                                                   total, resume);
                },
                [&](const LOCALGROUP_MEMBERS_INFO_1& member) { isListed = isListed || isMember(member); }));
        });
        return isListed;
    };
    const auto addGroup = [&](const LOCALGROUP_INFO_0& group) {
        SecID id = GroupNamed(group.lgrpi0_name);
        if (!groups.Contains(id) && listsMember(group.lgrpi0_name)) groups.Add(std::move(id));
    };
    // A group that is found may itself be listed by another one.
    std::size_t known = 0;
    do {
        known = groups.Count();
        About(L"Enumerating Local Groups", [&] {
            Check(ForEach<LOCALGROUP_INFO_0>(
                [](BYTE** buffer, DWORD* count, DWORD* total, DWORD_PTR* resume) {
                    return NetLocalGroupEnum(nullptr, 0, buffer, MAX_PREFERRED_LENGTH, count, total, resume);
                },
                addGroup));
        });
    } while (indirect && groups.Count() != known);
    return groups;
}

SecIDArray SecID::MemberOfList(bool localGroups, bool globalGroups, bool directoryGroups,
                               bool indirect) const {
    SecIDArray groups;
    const int use = Use();
    const bool isUser = use == SidTypeUser;
    // The machine's own accounts go by their names alone.
    const TQString user = isUser ? (IsMachineDomain() ? Name() : FullName()) : TQString();
    if (localGroups) {
        About(L"Getting security ID Local Groups", [&] {
            DWORD code = NERR_UserNotFound;
            if (isUser)
                code = ForEach<LOCALGROUP_USERS_INFO_0>(
                    [&](BYTE** buffer, DWORD* count, DWORD* total, DWORD_PTR*) {
                        return NetUserGetLocalGroups(nullptr, user.c_str(), 0,
                                                     indirect ? LG_INCLUDE_INDIRECT : 0, buffer,
                                                     MAX_PREFERRED_LENGTH, count, total);
                    },
                    [&](const LOCALGROUP_USERS_INFO_0& group) {
                        AddOnce(groups, GroupNamed(group.lgrui0_name));
                    });
            // Only a user is asked about by name, and one of a domain that does not answer isn't found so.
            if (code == NERR_UserNotFound)
                groups = GetMemberOfLocalGroupsByEnum(indirect, use);
            else
                Check(code);
        });
    }
    if (globalGroups && isUser) {
        About(L"Getting security ID Global Groups", [&] {
            Check(ForEach<GROUP_USERS_INFO_0>(
                [&](BYTE** buffer, DWORD* count, DWORD* total, DWORD_PTR*) {
                    return NetUserGetGroups(nullptr, user.c_str(), 0, buffer, MAX_PREFERRED_LENGTH, count,
                                            total);
                },
                [&](const GROUP_USERS_INFO_0& group) { AddOnce(groups, GroupNamed(group.grui0_name)); }));
        });
    }
    if (directoryGroups && isUser) {
        About(L"Getting security ID Directory Services Groups", [&] {
            for (const SecID& group : DirectoryGroups(*this))
                AddOnce(groups, group);
        });
    }
    return groups;
}

SecPrivilegeSet SecID::PrivilegesHeld(bool withGroups) const {
    if (IsNull()) throw TQSysException(ERROR_INVALID_SID, L"SecID::PrivilegesHeld");
    LSA_OBJECT_ATTRIBUTES attributes{};
    Corvel::TQUniqueHandle<PolicyClose> policy;
    ThrowStatus(LsaOpenPolicy(nullptr, &attributes, POLICY_LOOKUP_NAMES, policy.Put()));
    SecPrivilegeSet rights;
    AddRights(rights, policy.Get(), *this);
    if (withGroups)
        for (const SecID& group : MemberOfList())
            AddRights(rights, policy.Get(), group);
    return rights;
}

void SecID::GetUserLookupInfo(const wchar_t* system, DWORD level, NetBuffer& user) const {
    constexpr const wchar_t* Where = L"SecID::GetUserLookupInfo";
    const Corvel::_TQwString& name = Name(system);
    if (name.IsEmpty()) throw TQSysException(ERROR_NONE_MAPPED, Where);
    // Users are asked about by name, which may be that of something else.
    if (Use(system) != SidTypeUser) throw TQSysException(NERR_UserNotFound, Where);
    if (DWORD code = NetUserGetInfo(SystemName(system), name.c_str(), level, user.Put()))
        throw TQSysException(code, Where);
}

bool SecID::IsAccountDisabled(const wchar_t* system) const {
    NetBuffer user;
    GetUserLookupInfo(system, 1, user);
    return (user.As<USER_INFO_1>()->usri1_flags & UF_ACCOUNTDISABLE) != 0;
}

}  // namespace Quellan::Sarvek
