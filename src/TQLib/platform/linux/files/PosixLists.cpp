#include "TQLib/platform/linux/files/PosixLists.h"

#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

#include <linux/posix_acl.h>
#include <linux/posix_acl_xattr.h>
#include <tuple>

namespace Quellan::Platform {

namespace {

constexpr mode_t ReadBit = ACL_READ, WriteBit = ACL_WRITE, ExecuteBit = ACL_EXECUTE;

constexpr DWORD ReadData = 0x01, WriteData = 0x02, AppendData = 0x04, ReadEa = 0x08, WriteEa = 0x10,
                Execute = 0x20, DeleteChild = 0x40;
constexpr DWORD ContentRights = ReadData | WriteData | AppendData | Execute | DeleteChild;
// Nobody who gets to a file can be kept from these.
constexpr DWORD EverybodysRights = READ_CONTROL | SYNCHRONIZE | 0x80;

enum class Who { Owner, OwningGroup, User, Group, Administrators, Everybody, Stranger };

struct Party {
    Who who;
    SidValue sid;
    DWORD id = 0;  // of a user or group

    bool operator==(const Party& other) const noexcept {
        return who == other.who && (who == Who::Owner || who == Who::OwningGroup || sid == other.sid);
    }
    bool IsNamed() const noexcept { return who == Who::User || who == Who::Group; }
    bool IsGroup() const noexcept { return who == Who::OwningGroup || who == Who::Group; }
};

struct Rule {
    Party whom;
    bool allows;
    DWORD mask;
};

struct Rules {
    std::vector<Rule> all;
    bool isRoots = false;         // whether the owner is user 0
    bool ownerIsUnknown = false;  // whoever makes something in a folder
};

SidValue Fixed(WELL_KNOWN_SID_TYPE type) noexcept {
    return FindWellKnownSid(type)->Sid();
}

// Without a file, for what is made in a folder: its owner and group are not known yet.
Party PartyOf(const SidValue& sid, const PosixFile* file) {
    constexpr std::pair<WELL_KNOWN_SID_TYPE, Who> WellKnown[] = {
        {WinWorldSid, Who::Everybody},
        {WinAuthenticatedUserSid, Who::Everybody},
        {WinBuiltinUsersSid, Who::Everybody},
        {WinCreatorOwnerSid, Who::Owner},
        {WinCreatorOwnerRightsSid, Who::Owner},
        {WinCreatorGroupSid, Who::OwningGroup},
        {WinBuiltinAdministratorsSid, Who::Administrators},
        {WinLocalSystemSid, Who::Administrators},
    };
    for (const auto& [type, who] : WellKnown)
        if (sid == Fixed(type)) return {who, sid};
    const auto account = AccountOfSid(sid.Get());
    if (!account) return {Who::Stranger, sid};
    if (account->isGroup)
        return {file && account->id == file->group ? Who::OwningGroup : Who::Group, sid, account->id};
    return {file && account->id == file->owner ? Who::Owner : Who::User, sid, account->id};
}

bool Counts(const AccessEntry& entry) noexcept {
    return entry.type == ACCESS_ALLOWED_ACE_TYPE || entry.type == ACCESS_DENIED_ACE_TYPE;
}

DWORD Mapped(DWORD mask) noexcept {
    constexpr DWORD Generic = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    return (mask & ~Generic) | (mask & GENERIC_READ ? FILE_GENERIC_READ : 0) |
           (mask & GENERIC_WRITE ? FILE_GENERIC_WRITE : 0) |
           (mask & GENERIC_EXECUTE ? FILE_GENERIC_EXECUTE : 0) | (mask & GENERIC_ALL ? FILE_ALL_ACCESS : 0);
}

Rule RuleOf(const AccessEntry& entry, const PosixFile* file) {
    return {PartyOf(entry.sid, file), entry.type == ACCESS_ALLOWED_ACE_TYPE, Mapped(entry.mask)};
}

Rules RulesFor(const std::vector<AccessEntry>* list, const PosixFile& file) {
    Rules rules{{}, file.owner == 0, false};
    if (!list) rules.all.push_back({{Who::Everybody, Fixed(WinWorldSid)}, true, FILE_ALL_ACCESS});
    for (const AccessEntry& entry : list ? *list : std::vector<AccessEntry>())
        if (Counts(entry) && !(entry.flags & INHERIT_ONLY_ACE)) rules.all.push_back(RuleOf(entry, &file));
    return rules;
}

bool OthersMake(const PosixList& access) noexcept {
    return (access.Mask() | access.others) & WriteBit;
}

// What the folder's owner makes there, of whatever group.
PosixFile MadeIn(const PosixFile& folder) noexcept {
    return {.owner = folder.owner, .group = ~gid_t{0}};
}

// The kernel's lists go on to files and folders alike, and for ever: what is allowed for less is left out. Where
// nobody else makes anything in the folder, its owner is who does.
Rules InheritedRulesOf(const std::vector<AccessEntry>& list, const PosixList& access,
                       const PosixFile& folder) {
    const bool othersMake = OthersMake(access);
    const PosixFile made = MadeIn(folder);
    Rules rules{{}, !othersMake && folder.owner == 0, othersMake};
    for (const AccessEntry& entry : list) {
        constexpr BYTE Both = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
        const bool isForAll = (entry.flags & (Both | NO_PROPAGATE_INHERIT_ACE)) == Both;
        const bool isForSome = entry.flags & Both;
        if (!Counts(entry) || !(entry.type == ACCESS_ALLOWED_ACE_TYPE ? isForAll : isForSome)) continue;
        rules.all.push_back(RuleOf(entry, othersMake ? nullptr : &made));
    }
    return rules;
}

enum class Match { No, Maybe, Yes };

// Whether whoever one of the kernel's entries is for is he whom a rule names. "Everybody" as the subject is
// everybody whom no other entry is for.
Match Matches(const Party& subject, const Party& named, const Rules& rules) noexcept {
    if (named.who == Who::Everybody || named == subject) return Match::Yes;
    if (named.who == Who::Administrators)
        return subject.who == Who::Owner && rules.isRoots ? Match::Yes : Match::Maybe;
    if (named.IsGroup())
        return subject.who == Who::Everybody || subject.who == Who::Stranger ? Match::No : Match::Maybe;
    const bool mayBeHe = rules.ownerIsUnknown && (subject.who == Who::Owner || named.who == Who::Owner) &&
                         named.who != Who::Stranger;
    return mayBeHe && (subject.who == Who::Owner || subject.who == Who::User) ? Match::Maybe : Match::No;
}

struct Verdict {
    DWORD allowed = 0;
    DWORD denied = 0;
};

Verdict Judge(const Party& subject, const Rules& rules) noexcept {
    Verdict verdict;
    for (const Rule& rule : rules.all) {
        const Match match = Matches(subject, rule.whom, rules);
        if (rule.allows && match == Match::Yes)
            verdict.allowed |= rule.mask & ~verdict.denied;
        else if (!rule.allows && match != Match::No)
            verdict.denied |= rule.mask & ~verdict.allowed;
    }
    return verdict;
}

// To write in a folder is to delete there too; in a file appending alone can be denied, not allowed.
mode_t BitsOf(const Verdict& verdict, const PosixFile& file) noexcept {
    const DWORD write = !file.isFolder  ? WriteData
                        : file.isSticky ? WriteData | AppendData
                                        : WriteData | AppendData | DeleteChild;
    const bool mayWrite = (verdict.allowed & write) == write && !(verdict.denied & AppendData);
    const bool mayExecute = verdict.allowed & Execute && (file.isFolder || file.isExecutable);
    return (verdict.allowed & ReadData ? ReadBit : 0) | (mayWrite ? WriteBit : 0) |
           (mayExecute ? ExecuteBit : 0);
}

void Sort(std::vector<PosixEntry>& named) {
    std::ranges::sort(named, {}, [](const PosixEntry& each) { return std::tuple(each.isGroup, each.id); });
}

PosixList ListOf(const Rules& rules, const PosixFile& file) {
    const auto bits = [&](const Party& subject) { return BitsOf(Judge(subject, rules), file); };
    PosixList list{bits({Who::Owner, {}}), bits({Who::OwningGroup, {}}), bits({Who::Everybody, {}}), {}};
    std::vector<Party> named;
    for (const Rule& rule : rules.all)
        if (rule.whom.IsNamed() && rule.mask & ContentRights &&
            std::ranges::find(named, rule.whom) == named.end())
            named.push_back(rule.whom);
    for (const Party& party : named)
        list.named.push_back({party.who == Who::Group, party.id, bits(party)});
    Sort(list.named);
    return list;
}

// What three bits let somebody do, and what of it is nothing else's part.
DWORD RightsOf(mode_t bits, const PosixFile& file) noexcept {
    const DWORD deletes = file.isFolder && !file.isSticky ? DeleteChild : 0;
    return (bits & ReadBit ? FILE_GENERIC_READ : 0) | (bits & WriteBit ? FILE_GENERIC_WRITE | deletes : 0) |
           (bits & ExecuteBit ? FILE_GENERIC_EXECUTE : 0);
}

DWORD OwnPartOf(mode_t bits, const PosixFile& file) noexcept {
    return RightsOf(bits, file) & (ContentRights | ReadEa | WriteEa);
}

// In the order in which the kernel looks; who is found by a narrower entry does not get what a wider one gives.
std::vector<AccessEntry> Entries(const PosixList& list, const PosixFile& file, std::optional<SidValue> owner,
                                 std::optional<SidValue> group, BYTE flags) {
    std::vector<AccessEntry> entries;
    const auto add = [&](BYTE type, const std::optional<SidValue>& sid, DWORD mask) {
        if (sid && mask) entries.push_back({type, flags, mask, *sid});
    };
    const auto allow = [&](const std::optional<SidValue>& sid, mode_t bits) {
        add(ACCESS_ALLOWED_ACE_TYPE, sid, RightsOf(bits, file));
    };
    const auto deny = [&](const std::optional<SidValue>& sid, mode_t bits) {
        add(ACCESS_DENIED_ACE_TYPE, sid, OwnPartOf(bits, file));
    };
    const auto sidOf = [](const PosixEntry& entry) { return SidOfAccount({entry.isGroup, entry.id}); };
    const mode_t wider = list.Mask() | list.others;
    allow(owner, list.owner);
    deny(owner, wider & ~list.owner);
    for (const PosixEntry& entry : list.named)
        if (!entry.isGroup) {
            allow(sidOf(entry), entry.bits);
            deny(sidOf(entry), wider & ~entry.bits);
        }
    allow(group, list.group);
    for (const PosixEntry& entry : list.named)
        if (entry.isGroup) allow(sidOf(entry), entry.bits);
    deny(group, list.others & ~list.group);
    for (const PosixEntry& entry : list.named)
        if (entry.isGroup) deny(sidOf(entry), list.others & ~entry.bits);
    allow(Fixed(WinWorldSid), list.others);
    return entries;
}

// The bits of the entry that the kernel would take.
mode_t BitsFor(const Party& party, const PosixList& list) noexcept {
    if (party.who == Who::Owner) return list.owner;
    if (party.who == Who::OwningGroup) return list.group;
    for (const PosixEntry& entry : list.named)
        if (party.IsNamed() && entry.isGroup == party.IsGroup() && entry.id == party.id) return entry.bits;
    return list.others;
}

}  // namespace

mode_t PosixList::Mask() const noexcept {
    mode_t mask = group;
    for (const PosixEntry& entry : named)
        mask |= entry.bits;
    return mask;
}

mode_t PosixList::Mode() const noexcept {
    return owner << 6 | Mask() << 3 | others;
}

PosixFile PosixFileOf(const struct stat& info) noexcept {
    return {.owner = info.st_uid,
            .group = info.st_gid,
            .isFolder = S_ISDIR(info.st_mode),
            .isSticky = (info.st_mode & S_ISVTX) != 0,
            .isExecutable = (info.st_mode & 0111) != 0};
}

DWORD PosixListOf(const std::vector<AccessEntry>* list, const PosixFile& file, PosixList& access) {
    const Rules rules = RulesFor(list, file);
    const bool isOfAnotherKind = list && std::ranges::any_of(*list, [](const AccessEntry& entry) {
                                     return !HasSimpleLayout(entry.type);
                                 });
    const bool deniesStrangers = std::ranges::any_of(rules.all, [](const Rule& rule) {
        return !rule.allows && rule.whom.who == Who::Stranger && rule.mask & ContentRights;
    });
    if (isOfAnotherKind || deniesStrangers) return ERROR_NOT_SUPPORTED;
    access = ListOf(rules, file);
    return ERROR_SUCCESS;
}

std::optional<PosixList> InheritedPosixListOf(const std::vector<AccessEntry>& list, const PosixList& access,
                                              const PosixFile& folder) {
    const Rules rules = InheritedRulesOf(list, access, folder);
    if (rules.all.empty()) return std::nullopt;
    // Folders and files are made from the same list: a right has to be one in both.
    return ListOf(rules, {.owner = 0, .group = 0, .isFolder = true, .isExecutable = true});
}

std::vector<AccessEntry> EntriesOf(const PosixList& access, const PosixFile& file) {
    return Entries(access, file, SidOfAccount({.isGroup = false, .id = file.owner}),
                   SidOfAccount({.isGroup = true, .id = file.group}), 0);
}

std::vector<AccessEntry> InheritedEntriesOf(const PosixList& inherited) {
    return Entries(inherited, {.owner = 0, .group = 0, .isFolder = true}, Fixed(WinCreatorOwnerSid),
                   Fixed(WinCreatorGroupSid), OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE | INHERIT_ONLY_ACE);
}

std::vector<AccessEntry> Believable(std::vector<AccessEntry> list, const PosixList& access,
                                    const std::optional<PosixList>& inherited, const PosixFile& file) {
    constexpr BYTE Both = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    const PosixFile made = MadeIn(file);
    const bool othersMake = OthersMake(access);
    std::erase_if(list, [&](AccessEntry& entry) {
        const Party party = PartyOf(entry.sid, &file);
        const bool isTrusted = party.who == Who::Owner || party.who == Who::Administrators;
        if (entry.type != ACCESS_ALLOWED_ACE_TYPE || isTrusted) return false;
        DWORD kernels = entry.flags & INHERIT_ONLY_ACE ? ~DWORD{0} : RightsOf(BitsFor(party, access), file);
        if (entry.flags & Both) {
            const bool isForAll = (entry.flags & (Both | NO_PROPAGATE_INHERIT_ACE)) == Both;
            const Party maker = PartyOf(entry.sid, othersMake ? nullptr : &made);
            kernels &= inherited && isForAll ? RightsOf(BitsFor(maker, *inherited), file) : 0;
        }
        const DWORD given = Mapped(entry.mask);
        const DWORD believed = given & (kernels | EverybodysRights);
        if (believed != given) entry.mask = believed;
        return believed != given && !(believed & ~EverybodysRights);
    });
    return list;
}

std::vector<BYTE> PosixBlock(const PosixList& list) {
    std::vector<BYTE> block;
    const auto put = [&](auto value) {
        const auto* const bytes = reinterpret_cast<const BYTE*>(&value);
        block.insert(block.end(), bytes, bytes + sizeof value);
    };
    const auto entry = [&](int tag, mode_t bits, DWORD id = ~DWORD{0}) {
        put(posix_acl_xattr_entry{static_cast<WORD>(tag), static_cast<WORD>(bits), id});
    };
    put(posix_acl_xattr_header{POSIX_ACL_XATTR_VERSION});
    entry(ACL_USER_OBJ, list.owner);
    for (const PosixEntry& each : list.named)
        if (!each.isGroup) entry(ACL_USER, each.bits, each.id);
    entry(ACL_GROUP_OBJ, list.group);
    for (const PosixEntry& each : list.named)
        if (each.isGroup) entry(ACL_GROUP, each.bits, each.id);
    if (!list.named.empty()) entry(ACL_MASK, list.Mask());
    entry(ACL_OTHER, list.others);
    return block;
}

bool ParsePosixBlock(std::span<const BYTE> block, PosixList& list) {
    posix_acl_xattr_header header;
    if (block.size() < sizeof header) return false;
    std::memcpy(&header, block.data(), sizeof header);
    block = block.subspan(sizeof header);
    if (header.a_version != POSIX_ACL_XATTR_VERSION) return false;
    PosixList result;
    mode_t mask = ACL_READ | ACL_WRITE | ACL_EXECUTE;
    for (posix_acl_xattr_entry entry; block.size() >= sizeof entry; block = block.subspan(sizeof entry)) {
        std::memcpy(&entry, block.data(), sizeof entry);
        switch (entry.e_tag) {
            case ACL_USER_OBJ:
                result.owner = entry.e_perm;
                break;
            case ACL_GROUP_OBJ:
                result.group = entry.e_perm;
                break;
            case ACL_OTHER:
                result.others = entry.e_perm;
                break;
            case ACL_MASK:
                mask = entry.e_perm;
                break;
            case ACL_USER:
            case ACL_GROUP:
                result.named.push_back({entry.e_tag == ACL_GROUP, entry.e_id, entry.e_perm});
                break;
            default:
                return false;
        }
    }
    if (!block.empty()) return false;
    result.group &= mask;
    for (PosixEntry& each : result.named)
        each.bits &= mask;
    Sort(result.named);
    list = std::move(result);
    return true;
}

}  // namespace Quellan::Platform
