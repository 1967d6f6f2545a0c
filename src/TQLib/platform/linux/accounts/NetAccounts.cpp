#include "TQLib/platform/linux/accounts/NetAccounts.h"

#include "TQLib/platform/linux/accounts/AccountNames.h"
#include "TQLib/platform/linux/accounts/Packer.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/ComputerName.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/base/Version.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <set>
#include <span>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

// Packs in a block of its own.
template <class Pack>
DWORD NewBlock(BYTE*& buffer, Pack pack) {
    Packer counter;
    pack(counter);
    void* const block = LocalAlloc(LMEM_FIXED, counter.Size());
    if (!block) return ERROR_NOT_ENOUGH_MEMORY;
    Packer packer(block);
    pack(packer);
    buffer = static_cast<BYTE*>(block);
    return ERROR_SUCCESS;
}

struct ListReply {
    BYTE** buffer;
    DWORD preferredSize;
    DWORD* read;
    DWORD* total;
    DWORD_PTR* resume;

    bool IsComplete() const noexcept { return buffer && read && total; }
};

// Packs as many of the items as are wanted. `pack` takes a Packer and a span of items.
template <class Item, class Pack>
DWORD GiveList(const std::vector<Item>& items, const ListReply& reply, Pack pack) {
    const std::size_t first = reply.resume ? std::min<std::size_t>(*reply.resume, items.size()) : 0;
    const std::span<const Item> left = std::span(items).subspan(first);
    const auto fits = [&](std::size_t count) {
        Packer counter;
        pack(counter, left.first(count));
        return reply.preferredSize == MAX_PREFERRED_LENGTH || counter.Size() <= reply.preferredSize;
    };
    std::size_t count = left.size();
    if (!fits(count)) {
        std::size_t tooMany = count;
        for (count = 1; tooMany - count > 1;) {
            const std::size_t middle = count + (tooMany - count) / 2;
            (fits(middle) ? count : tooMany) = middle;
        }
    }
    if (DWORD code = NewBlock(*reply.buffer, [&](Packer& packer) { pack(packer, left.first(count)); }))
        return code;
    const bool isAll = count == left.size();
    *reply.read = static_cast<DWORD>(count);
    *reply.total = static_cast<DWORD>(left.size());
    if (reply.resume) *reply.resume = isAll ? 0 : first + count;
    return isAll ? ERROR_SUCCESS : ERROR_MORE_DATA;
}

// A list of structures, each made from its item by `make`, which may place texts behind them.
template <class Entry, class Item, class Make>
DWORD GiveEntries(const std::vector<Item>& items, const ListReply& reply, Make make) {
    return GiveList(items, reply, [&](Packer& packer, std::span<const Item> wanted) {
        Entry* const entries = packer.Array<Entry>(wanted.size());
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            const Entry made = make(packer, wanted[i]);
            if (entries) entries[i] = made;
        }
    });
}

using Names = std::vector<std::wstring>;

template <class Entry>
DWORD GiveNames(const Names& names, const ListReply& reply) {
    return GiveEntries<Entry>(
        names, reply, [](Packer& packer, const std::wstring& name) { return Entry{packer.Text(name)}; });
}

DWORD FindUserOf(const wchar_t* name, UserRecord& user, Deadline deadline) {
    SidValue sid;
    AccountName found;
    DWORD code = FindSidOf(name, sid, found, deadline);
    const auto account = code ? std::nullopt : AccountOfSid(&sid);
    if (!code && (!account || account->isGroup)) code = ERROR_NONE_MAPPED;
    if (!code) code = FindUser(account->id, user, deadline);
    return code == ERROR_NONE_MAPPED ? NERR_UserNotFound : code;
}

// One structure, made as above.
template <class Entry, class Make>
DWORD GiveOne(BYTE*& buffer, Make make) {
    return NewBlock(buffer, [&](Packer& packer) {
        Entry* const entry = packer.Array<Entry>(1);
        const Entry made = make(packer);
        if (entry) *entry = made;
    });
}

std::wstring FullNameOf(const UserRecord& user) {
    return ToWide(std::string_view(user.comment).substr(0, user.comment.find(',')));
}

DWORD GiveUser(const wchar_t* name, DWORD level, BYTE*& buffer) {
    const Deadline deadline = DirectoryDeadline();
    UserRecord user;
    if (DWORD code = FindUserOf(name, user, deadline)) return code;
    const std::wstring userName = ToWide(user.name);
    const std::wstring fullName = FullNameOf(user);
    if (level == 0)
        return GiveOne<USER_INFO_0>(buffer,
                                    [&](Packer& packer) { return USER_INFO_0{packer.Text(userName)}; });
    if (level == 10)
        return GiveOne<USER_INFO_10>(buffer, [&](Packer& packer) {
            return USER_INFO_10{packer.Text(userName), packer.Text(L""), packer.Text(L""),
                                packer.Text(fullName)};
        });
    bool isDisabled = false;
    if (DWORD code = ReadIsDisabled(user, isDisabled, deadline)) return code;
    const DWORD flags = UF_SCRIPT | UF_NORMAL_ACCOUNT | (isDisabled ? UF_ACCOUNTDISABLE : 0);
    const SidValue sid = *SidOfAccount({.isGroup = false, .id = user.id});
    if (level == 20)
        return GiveOne<USER_INFO_20>(buffer, [&](Packer& packer) {
            return USER_INFO_20{packer.Text(userName), packer.Text(fullName), packer.Text(L""), flags,
                                sid.subAuthorities[sid.count - 1]};
        });
    if (level == 23)
        return GiveOne<USER_INFO_23>(buffer, [&](Packer& packer) {
            return USER_INFO_23{packer.Text(userName), packer.Text(fullName), packer.Text(L""), flags,
                                packer.Sid(sid)};
        });
    std::vector<DWORD> groups;
    bool isAdministrator = false;
    DWORD code = FindGroupsOf(user, groups, deadline);
    if (!code) code = FindIsAdministrator(user.id, groups, isAdministrator, deadline);
    if (code) return code;
    return GiveOne<USER_INFO_1>(buffer, [&](Packer& packer) {
        return USER_INFO_1{packer.Text(userName),
                           nullptr,
                           0,
                           isAdministrator ? USER_PRIV_ADMIN : USER_PRIV_USER,
                           packer.Text(ToWide(user.home)),
                           packer.Text(L""),
                           flags,
                           packer.Text(L"")};
    });
}

// The groups of a user, the machine's own by their names, the others by their ids.
struct UsersGroups {
    Names local;
    std::vector<DWORD> others;
    bool isAdministrator = false;
};

DWORD FindUsersGroups(const wchar_t* name, UsersGroups& found, Deadline deadline) {
    UserRecord user;
    std::vector<DWORD> ids;
    std::vector<GroupRecord> localGroups;
    DWORD code = FindUserOf(name, user, deadline);
    if (!code) code = FindGroupsOf(user, ids, deadline);
    if (!code) code = FindIsAdministrator(user.id, ids, found.isAdministrator, deadline);
    if (!code) code = ReadLocalGroups(localGroups);
    if (code) return code;
    for (const DWORD id : ids) {
        const auto local = std::ranges::find(localGroups, id, &GroupRecord::id);
        if (local == localGroups.end())
            found.others.push_back(id);
        else
            found.local.push_back(ToWide(local->name));
    }
    return ERROR_SUCCESS;
}

const wchar_t* NameOfBuiltin(WELL_KNOWN_SID_TYPE type) noexcept {
    return FindWellKnownSid(type)->name;
}

DWORD GiveLocalGroupsOf(const wchar_t* name, const ListReply& reply) {
    UsersGroups groups;
    if (DWORD code = FindUsersGroups(name, groups, DirectoryDeadline())) return code;
    if (groups.isAdministrator) groups.local.emplace_back(NameOfBuiltin(WinBuiltinAdministratorsSid));
    groups.local.emplace_back(NameOfBuiltin(WinBuiltinUsersSid));
    return GiveNames<LOCALGROUP_USERS_INFO_0>(groups.local, reply);
}

DWORD GiveGlobalGroupsOf(const wchar_t* name, DWORD level, const ListReply& reply) {
    const Deadline deadline = DirectoryDeadline();
    UsersGroups groups;
    if (DWORD code = FindUsersGroups(name, groups, deadline)) return code;
    Names names;
    for (const DWORD id : groups.others) {
        GroupRecord group;
        const DWORD code = FindGroup(id, group, deadline);
        if (!code)
            names.push_back(ToWide(group.name));
        else if (code != ERROR_NONE_MAPPED)
            return code;
    }
    if (level == 0) return GiveNames<GROUP_USERS_INFO_0>(names, reply);
    return GiveEntries<GROUP_USERS_INFO_1>(names, reply, [](Packer& packer, const std::wstring& group) {
        return GROUP_USERS_INFO_1{packer.Text(group),
                                  SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED};
    });
}

DWORD GiveLocalGroups(DWORD level, const ListReply& reply) {
    std::vector<GroupRecord> groups;
    if (DWORD code = ReadLocalGroups(groups)) return code;
    Names names = {NameOfBuiltin(WinBuiltinAdministratorsSid), NameOfBuiltin(WinBuiltinUsersSid)};
    for (const GroupRecord& group : groups)
        names.push_back(ToWide(group.name));
    if (level == 0) return GiveNames<LOCALGROUP_INFO_0>(names, reply);
    return GiveEntries<LOCALGROUP_INFO_1>(names, reply, [](Packer& packer, const std::wstring& group) {
        return LOCALGROUP_INFO_1{packer.Text(group), packer.Text(L"")};
    });
}

// Members of local groups.

struct Member {
    SidValue sid;
    AccountName name;

    std::wstring FullName() const { return name.domain + L"\\" + name.name; }
};

class Members {
  public:
    explicit Members(Deadline deadline) : m_deadline(deadline) {}

    DWORD Read() { return ReadLocalUsers(m_users); }

    // Those who have none of the numbers of the machine's domain are left out.
    void Add(const UserRecord& user) {
        const auto sid = SidOfAccount({.isGroup = false, .id = user.id});
        if (sid && m_known.insert(user.id).second)
            m_found.push_back({*sid, {ToWide(user.name), ComputerName(), SidTypeUser}});
    }

    DWORD AddNamed(const std::string& name) {
        const auto local = std::ranges::find(m_users, name, &UserRecord::name);
        if (local != m_users.end()) {
            Add(*local);
            return ERROR_SUCCESS;
        }
        UserRecord user;
        const DWORD code = FindUser(name, user, m_deadline);
        if (!code) Add(user);
        return code == ERROR_NONE_MAPPED ? ERROR_SUCCESS : code;
    }

    DWORD AddMembersOf(const GroupRecord& group) {
        for (const UserRecord& user : m_users)
            if (user.group == group.id) Add(user);
        for (const std::string& name : group.members)
            if (DWORD code = AddNamed(name)) return code;
        return ERROR_SUCCESS;
    }

    DWORD AddAdministrators() {
        constexpr DWORD Root = 0;
        UserRecord root;
        std::vector<DWORD> ids;
        DWORD code = FindUser(Root, root, m_deadline);
        if (!code) Add(root);
        if (!code || code == ERROR_NONE_MAPPED) code = FindAdministrativeGroups(ids, m_deadline);
        for (auto id = ids.begin(); !code && id != ids.end(); ++id) {
            GroupRecord group;
            code = FindGroup(*id, group, m_deadline);
            if (!code) code = AddMembersOf(group);
        }
        return code;
    }

    void AddEverybody() {
        const WellKnownSid& known = *FindWellKnownSid(WinAuthenticatedUserSid);
        m_found.push_back({known.Sid(), {known.name, known.domain, known.use}});
    }

    const std::vector<Member>& Found() const noexcept { return m_found; }

  private:
    const Deadline m_deadline;
    std::vector<UserRecord> m_users;  // the machine's own
    std::vector<Member> m_found;
    std::set<DWORD> m_known;
};

// Also by the name that a group has beside a user of the same name.
DWORD FindMembers(std::wstring_view name, Members& members) {
    std::vector<GroupRecord> groups;
    if (name.starts_with(GroupKind)) name.remove_prefix(GroupKind.size());
    DWORD code = ReadLocalGroups(groups);
    if (!code) code = members.Read();
    if (code) return code;
    const auto sameName = [&](bool ignoreCase) {
        return std::ranges::find_if(groups, [&](const GroupRecord& group) {
            return CompareOrdinal(ToWide(group.name), name, ignoreCase) == 0;
        });
    };
    const auto isBuiltin = [&](WELL_KNOWN_SID_TYPE type) {
        return CompareOrdinal(NameOfBuiltin(type), name, true) == 0;
    };
    auto found = sameName(false);
    if (found == groups.end()) {
        if (isBuiltin(WinBuiltinAdministratorsSid)) return members.AddAdministrators();
        if (isBuiltin(WinBuiltinUsersSid)) {
            members.AddEverybody();
            return ERROR_SUCCESS;
        }
        found = sameName(true);
    }
    return found == groups.end() ? ERROR_NO_SUCH_ALIAS : members.AddMembersOf(*found);
}

DWORD GiveMembers(const wchar_t* group, DWORD level, const ListReply& reply) {
    Members members(DirectoryDeadline());
    if (DWORD code = FindMembers(group, members)) return code;
    const auto give = [&]<class Entry>(Entry (*make)(Packer&, const Member&)) {
        return GiveEntries<Entry>(members.Found(), reply, make);
    };
    switch (level) {
        case 0:
            return give(+[](Packer& packer, const Member& member) {
                return LOCALGROUP_MEMBERS_INFO_0{packer.Sid(member.sid)};
            });
        case 1:
            return give(+[](Packer& packer, const Member& member) {
                return LOCALGROUP_MEMBERS_INFO_1{packer.Sid(member.sid), member.name.use,
                                                 packer.Text(member.name.name)};
            });
        case 2:
            return give(+[](Packer& packer, const Member& member) {
                return LOCALGROUP_MEMBERS_INFO_2{packer.Sid(member.sid), member.name.use,
                                                 packer.Text(member.FullName())};
            });
        default:
            return give(+[](Packer& packer, const Member& member) {
                return LOCALGROUP_MEMBERS_INFO_3{packer.Text(member.FullName())};
            });
    }
}

DWORD GiveMachine(BYTE*& buffer) {
    const std::wstring machine = ComputerName();
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    GetVersionExW(&version);
    return GiveOne<WKSTA_INFO_100>(buffer, [&](Packer& packer) {
        return WKSTA_INFO_100{PLATFORM_ID_NT, packer.Text(machine), packer.Text(machine),
                              version.dwMajorVersion, version.dwMinorVersion};
    });
}

DWORD GiveWorkstationUser(DWORD level, BYTE*& buffer) {
    UserRecord user;
    const DWORD code = FindUser(DWORD{geteuid()}, user, DirectoryDeadline());
    if (code) return code == ERROR_NONE_MAPPED ? NERR_UserNotFound : code;
    const std::wstring name = ToWide(user.name);
    if (level == 0)
        return GiveOne<WKSTA_USER_INFO_0>(
            buffer, [&](Packer& packer) { return WKSTA_USER_INFO_0{packer.Text(name)}; });
    const std::wstring machine = ComputerName();
    return GiveOne<WKSTA_USER_INFO_1>(buffer, [&](Packer& packer) {
        return WKSTA_USER_INFO_1{packer.Text(name), packer.Text(machine), packer.Text(L""),
                                 packer.Text(machine)};
    });
}

// What all calls check first.
DWORD Check(const wchar_t* server, bool isLevel, bool hasArguments) noexcept {
    if (!IsThisMachine(server)) return ERROR_BAD_NETPATH;
    if (!isLevel) return ERROR_INVALID_LEVEL;
    return hasArguments ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
}

}  // namespace

NET_API_STATUS NetApiBufferFree(void* buffer) noexcept {
    LocalFree(buffer);
    return NERR_Success;
}

NET_API_STATUS NetUserGetInfo(const wchar_t* server, const wchar_t* user, DWORD level,
                              BYTE** buffer) noexcept {
    if (DWORD code = FaultDue("NetUserGetInfo")) return code;
    const bool isLevel = level <= 1 || level == 10 || level == 20 || level == 23;
    if (DWORD code = Check(server, isLevel, user && buffer)) return code;
    return WithMemory([&] { return GiveUser(user, level, *buffer); });
}

NET_API_STATUS NetUserGetLocalGroups(const wchar_t* server, const wchar_t* user, DWORD level, DWORD flags,
                                     BYTE** buffer, DWORD preferredSize, DWORD* read, DWORD* total) noexcept {
    if (DWORD code = FaultDue("NetUserGetLocalGroups")) return code;
    const ListReply reply{buffer, preferredSize, read, total, nullptr};
    const bool hasArguments = user && reply.IsComplete() && !(flags & ~LG_INCLUDE_INDIRECT);
    if (DWORD code = Check(server, level == 0, hasArguments)) return code;
    return WithMemory([&] { return GiveLocalGroupsOf(user, reply); });
}

NET_API_STATUS NetUserGetGroups(const wchar_t* server, const wchar_t* user, DWORD level, BYTE** buffer,
                                DWORD preferredSize, DWORD* read, DWORD* total) noexcept {
    if (DWORD code = FaultDue("NetUserGetGroups")) return code;
    const ListReply reply{buffer, preferredSize, read, total, nullptr};
    if (DWORD code = Check(server, level <= 1, user && reply.IsComplete())) return code;
    return WithMemory([&] { return GiveGlobalGroupsOf(user, level, reply); });
}

NET_API_STATUS NetLocalGroupEnum(const wchar_t* server, DWORD level, BYTE** buffer, DWORD preferredSize,
                                 DWORD* read, DWORD* total, DWORD_PTR* resume) noexcept {
    if (DWORD code = FaultDue("NetLocalGroupEnum")) return code;
    const ListReply reply{buffer, preferredSize, read, total, resume};
    if (DWORD code = Check(server, level <= 1, reply.IsComplete())) return code;
    return WithMemory([&] { return GiveLocalGroups(level, reply); });
}

NET_API_STATUS NetLocalGroupGetMembers(const wchar_t* server, const wchar_t* group, DWORD level,
                                       BYTE** buffer, DWORD preferredSize, DWORD* read, DWORD* total,
                                       DWORD_PTR* resume) noexcept {
    if (DWORD code = FaultDue("NetLocalGroupGetMembers")) return code;
    const ListReply reply{buffer, preferredSize, read, total, resume};
    if (DWORD code = Check(server, level <= 3, group && reply.IsComplete())) return code;
    return WithMemory([&] { return GiveMembers(group, level, reply); });
}

NET_API_STATUS NetWkstaGetInfo(wchar_t* server, DWORD level, BYTE** buffer) noexcept {
    if (DWORD code = FaultDue("NetWkstaGetInfo")) return code;
    if (DWORD code = Check(server, level == 100, buffer)) return code;
    return WithMemory([&] { return GiveMachine(*buffer); });
}

NET_API_STATUS NetWkstaUserGetInfo(wchar_t* reserved, DWORD level, BYTE** buffer) noexcept {
    if (DWORD code = FaultDue("NetWkstaUserGetInfo")) return code;
    if (DWORD code = Check(nullptr, level <= 1, !reserved && buffer)) return code;
    return WithMemory([&] { return GiveWorkstationUser(level, *buffer); });
}

}  // namespace Quellan::Platform
