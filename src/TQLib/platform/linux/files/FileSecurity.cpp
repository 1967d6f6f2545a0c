#include "TQLib/platform/linux/files/FileSecurity.h"

#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/files/Files.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

#include <cerrno>
#include <initializer_list>
#include <string>
#include <sys/xattr.h>

namespace Quellan::Platform {

namespace {

constexpr const char* Attribute = "user.tqlib.security";
constexpr std::size_t MostKept = 64 * 1024;
constexpr mode_t DataBits = 0666;
constexpr std::size_t EntryHead = offsetof(ACCESS_ALLOWED_ACE, SidStart);

template <class T>
T Read(const BYTE* at) noexcept {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

DWORD ReadSid(std::span<const BYTE> block, std::optional<SidValue>& sid) noexcept {
    if (block.size() < SidHeaderSize || !IsSid(block.data()) || LengthOf(block.data()) > block.size())
        return ERROR_INVALID_SID;
    sid.emplace(block.data());
    return ERROR_SUCCESS;
}

bool IsSimple(BYTE type) noexcept {
    return type <= SYSTEM_AUDIT_ACE_TYPE || type == SYSTEM_MANDATORY_LABEL_ACE_TYPE;
}

DWORD ReadEntry(std::span<const BYTE> block, AccessEntry& entry) noexcept {
    const auto header = Read<ACE_HEADER>(block.data());
    entry = {.type = header.AceType, .flags = header.AceFlags, .mask = 0, .sid = {}};
    if (block.size() < EntryHead) return ERROR_INVALID_ACL;
    entry.mask = Read<DWORD>(block.data() + offsetof(ACCESS_ALLOWED_ACE, Mask));
    if (!IsSimple(entry.type)) return ERROR_SUCCESS;
    std::optional<SidValue> sid;
    if (ReadSid(block.subspan(EntryHead), sid)) return ERROR_INVALID_ACL;
    entry.sid = *sid;
    return ERROR_SUCCESS;
}

DWORD ReadList(std::span<const BYTE> block, std::vector<AccessEntry>& list) {
    if (block.size() < sizeof(ACL)) return ERROR_INVALID_ACL;
    const auto head = Read<ACL>(block.data());
    if (head.AclRevision < ACL_REVISION || head.AclRevision > ACL_REVISION_DS ||
        head.AclSize > block.size() || head.AclSize < sizeof(ACL))
        return ERROR_INVALID_ACL;
    std::span<const BYTE> rest = block.subspan(sizeof(ACL), head.AclSize - sizeof(ACL));
    for (unsigned i = 0; i < head.AceCount; ++i) {
        const std::size_t size = rest.size() < sizeof(ACE_HEADER) ? 0 : Read<ACE_HEADER>(rest.data()).AceSize;
        AccessEntry entry;
        if (size < sizeof(ACE_HEADER) || size > rest.size() || ReadEntry(rest.first(size), entry))
            return ERROR_INVALID_ACL;
        list.push_back(entry);
        rest = rest.subspan(size);
    }
    return ERROR_SUCCESS;
}

// The parts of a descriptor, wherever they lie; empty ones are missing.
struct Parts {
    WORD control;
    std::span<const BYTE> owner;
    std::span<const BYTE> group;
    std::span<const BYTE> list;
};

DWORD ReadParts(const Parts& parts, FileSecurity& security) {
    FileSecurity result;
    result.control = parts.control;
    if (!parts.owner.empty())
        if (DWORD code = ReadSid(parts.owner, result.owner)) return code;
    if (!parts.group.empty())
        if (DWORD code = ReadSid(parts.group, result.group)) return code;
    result.hasList = parts.control & SE_DACL_PRESENT;
    if (result.hasList && !parts.list.empty())
        if (DWORD code = ReadList(parts.list, result.list.emplace())) return code;
    security = std::move(result);
    return ERROR_SUCCESS;
}

std::span<const BYTE> SidAt(const void* at) noexcept {
    return at ? std::span(static_cast<const BYTE*>(at), LengthOf(at)) : std::span<const BYTE>();
}

std::span<const BYTE> ListAt(const void* at) noexcept {
    if (!at) return {};
    return std::span(static_cast<const BYTE*>(at), Read<ACL>(static_cast<const BYTE*>(at)).AclSize);
}

template <class T>
void Put(std::vector<BYTE>& block, const T& value, std::size_t size = sizeof(T)) {
    const std::size_t at = block.size();
    block.resize(at + size);
    std::memcpy(block.data() + at, &value, size);
}

void PutSid(std::vector<BYTE>& block, const SidValue& sid) {
    Put(block, sid, sid.Length());
}

void PutList(std::vector<BYTE>& block, const std::vector<AccessEntry>& list) {
    std::size_t size = sizeof(ACL);
    for (const AccessEntry& entry : list)
        size += EntryHead + entry.sid.Length();
    Put(block, ACL{.AclRevision = ACL_REVISION,
                   .Sbz1 = 0,
                   .AclSize = static_cast<WORD>(size),
                   .AceCount = static_cast<WORD>(list.size()),
                   .Sbz2 = 0});
    for (const AccessEntry& entry : list) {
        Put(block, ACE_HEADER{entry.type, entry.flags, static_cast<WORD>(EntryHead + entry.sid.Length())});
        Put(block, entry.mask);
        PutSid(block, entry.sid);
    }
}

// Whom one of a file's three sets of bits is for.
struct Subject {
    std::vector<SidValue> sids;
    int shift;

    bool Has(const SidValue& sid) const noexcept { return std::ranges::find(sids, sid) != sids.end(); }
};

SidValue Fixed(WELL_KNOWN_SID_TYPE type) noexcept {
    return FindWellKnownSid(type)->Sid();
}

Subject SubjectOf(std::optional<SidValue> account, std::initializer_list<WELL_KNOWN_SID_TYPE> types,
                  int shift) {
    Subject subject{{}, shift};
    if (account) subject.sids.push_back(*account);
    for (const auto type : types)
        subject.sids.push_back(Fixed(type));
    for (const auto type : {WinWorldSid, WinAuthenticatedUserSid, WinBuiltinUsersSid})
        subject.sids.push_back(Fixed(type));
    return subject;
}

std::vector<Subject> SubjectsOf(uid_t owner, gid_t group) {
    const auto user = SidOfAccount({.isGroup = false, .id = owner});
    const auto userGroup = SidOfAccount({.isGroup = true, .id = group});
    return {owner == 0 ? SubjectOf(user,
                                   {WinCreatorOwnerSid, WinCreatorOwnerRightsSid, WinBuiltinAdministratorsSid,
                                    WinLocalSystemSid},
                                   6)
                       : SubjectOf(user, {WinCreatorOwnerSid, WinCreatorOwnerRightsSid}, 6),
            SubjectOf(userGroup, {WinCreatorGroupSid}, 3), SubjectOf(std::nullopt, {}, 0)};
}

constexpr mode_t ReadBit = 4;
constexpr mode_t WriteBit = 2;

// Appending alone can't be allowed, but denied.
mode_t BitsOf(const AccessEntry& entry) noexcept {
    const DWORD writes =
        entry.type == ACCESS_DENIED_ACE_TYPE ? FILE_WRITE_DATA | FILE_APPEND_DATA : FILE_WRITE_DATA;
    const bool mayRead = entry.mask & (FILE_READ_DATA | GENERIC_READ | GENERIC_ALL);
    const bool mayWrite = entry.mask & (writes | GENERIC_WRITE | GENERIC_ALL);
    return (mayRead ? ReadBit : 0) | (mayWrite ? WriteBit : 0);
}

bool Counts(const AccessEntry& entry) noexcept {
    return !(entry.flags & INHERIT_ONLY_ACE) &&
           (entry.type == ACCESS_ALLOWED_ACE_TYPE || entry.type == ACCESS_DENIED_ACE_TYPE);
}

mode_t BitsFor(const Subject& subject, const std::vector<AccessEntry>& list) noexcept {
    mode_t allowed = 0, denied = 0;
    for (const AccessEntry& entry : list) {
        if (!Counts(entry) || !subject.Has(entry.sid)) continue;
        if (entry.type == ACCESS_ALLOWED_ACE_TYPE)
            allowed |= BitsOf(entry) & ~denied;
        else
            denied |= BitsOf(entry) & ~allowed;
    }
    return allowed << subject.shift;
}

DWORD Mapped(DWORD mask) noexcept {
    constexpr DWORD Generic = GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL;
    return (mask & ~Generic) | (mask & GENERIC_READ ? FILE_GENERIC_READ : 0) |
           (mask & GENERIC_WRITE ? FILE_GENERIC_WRITE : 0) |
           (mask & GENERIC_EXECUTE ? FILE_GENERIC_EXECUTE : 0) | (mask & GENERIC_ALL ? FILE_ALL_ACCESS : 0);
}

// The rights that three bits give.
DWORD RightsOf(mode_t bits) noexcept {
    return (bits & ReadBit ? FILE_GENERIC_READ : 0) | (bits & WriteBit ? FILE_GENERIC_WRITE : 0) |
           (bits & 1 ? FILE_GENERIC_EXECUTE : 0);
}

DWORD GrantedTo(const Subject& subject, const std::vector<AccessEntry>& list) noexcept {
    DWORD allowed = 0, denied = 0;
    for (const AccessEntry& entry : list) {
        if (!Counts(entry) || !subject.Has(entry.sid)) continue;
        if (entry.type == ACCESS_ALLOWED_ACE_TYPE)
            allowed |= Mapped(entry.mask) & ~denied;
        else
            denied |= Mapped(entry.mask) & ~allowed;
    }
    return allowed;
}

// Whether a list says of anybody that he may do more than the system lets him. The owner can give himself
// everything, administrators can do it without asking.
bool GrantsMore(const std::vector<AccessEntry>& list, const struct stat& info) {
    const std::vector<Subject> subjects = SubjectsOf(info.st_uid, info.st_gid);
    const Subject &owner = subjects[0], &group = subjects[1], &others = subjects[2];
    return std::ranges::any_of(list, [&](const AccessEntry& entry) {
        const bool isEverybodys = others.Has(entry.sid);
        const bool isTrusted = entry.sid == Fixed(WinBuiltinAdministratorsSid) ||
                               entry.sid == Fixed(WinLocalSystemSid) ||
                               (owner.Has(entry.sid) && !isEverybodys);
        if (!Counts(entry) || isTrusted) return false;
        Subject subject = group.Has(entry.sid) && !isEverybodys ? group : others;
        subject.sids.push_back(entry.sid);
        const mode_t bits = info.st_mode >> subject.shift;
        return (GrantedTo(subject, list) & ~RightsOf(bits)) != 0;
    });
}

// A descriptor that says what the bits say.
FileSecurity SecurityOfMode(const struct stat& info) {
    FileSecurity security;
    security.control = SE_DACL_PRESENT;
    security.hasList = true;
    auto& list = security.list.emplace();
    const auto allow = [&](const std::optional<SidValue>& sid, int shift) {
        const DWORD mask = RightsOf(info.st_mode >> shift);
        if (sid && mask) list.push_back({ACCESS_ALLOWED_ACE_TYPE, 0, mask, *sid});
    };
    allow(SidOfAccount({.isGroup = false, .id = info.st_uid}), 6);
    allow(SidOfAccount({.isGroup = true, .id = info.st_gid}), 3);
    allow(Fixed(WinWorldSid), 0);
    return security;
}

// False where nothing was kept, or what was kept has been overtaken. Whoever may write a file may replace
// what is kept with it: it tells more than the bits do, and never of a right that the bits do not give.
bool ReadKept(int fd, const struct stat& info, FileSecurity& security) {
    std::vector<BYTE> block(MostKept);
    const ssize_t size = fgetxattr(fd, Attribute, block.data(), block.size());
    if (size <= 0) return false;
    mode_t mode = 0;
    return ParseDescriptor({block.data(), static_cast<std::size_t>(size)}, security) == ERROR_SUCCESS &&
           security.hasList && ModeOf(security, info.st_uid, info.st_gid, mode) == ERROR_SUCCESS &&
           mode == (info.st_mode & DataBits) && security.list && !GrantsMore(*security.list, info);
}

}  // namespace

DWORD ReadDescriptor(const void* descriptor, FileSecurity& security) {
    const auto* const bytes = static_cast<const BYTE*>(descriptor);
    if (!bytes || *bytes != SECURITY_DESCRIPTOR_REVISION) return ERROR_INVALID_SECURITY_DESCR;
    const auto relative = Read<SECURITY_DESCRIPTOR_RELATIVE>(bytes);
    if (!(relative.Control & SE_SELF_RELATIVE)) {
        const auto absolute = Read<SECURITY_DESCRIPTOR>(bytes);
        return ReadParts({absolute.Control, SidAt(absolute.Owner), SidAt(absolute.Group),
                          ListAt(absolute.Control & SE_DACL_PRESENT ? absolute.Dacl : nullptr)},
                         security);
    }
    const auto at = [&](DWORD offset) { return offset ? bytes + offset : nullptr; };
    return ReadParts({relative.Control, SidAt(at(relative.Owner)), SidAt(at(relative.Group)),
                      ListAt(relative.Control & SE_DACL_PRESENT ? at(relative.Dacl) : nullptr)},
                     security);
}

DWORD ParseDescriptor(std::span<const BYTE> block, FileSecurity& security) {
    if (block.size() < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) return ERROR_INVALID_SECURITY_DESCR;
    const auto head = Read<SECURITY_DESCRIPTOR_RELATIVE>(block.data());
    const DWORD last = std::max({head.Owner, head.Group, head.Dacl});
    if (head.Revision != SECURITY_DESCRIPTOR_REVISION || !(head.Control & SE_SELF_RELATIVE) ||
        last >= block.size())
        return ERROR_INVALID_SECURITY_DESCR;
    const auto from = [&](DWORD offset) { return offset ? block.subspan(offset) : std::span<const BYTE>(); };
    return ReadParts({head.Control, from(head.Owner), from(head.Group), from(head.Dacl)}, security);
}

std::vector<BYTE> MakeDescriptor(const FileSecurity& security, DWORD wanted) {
    constexpr WORD OfList = SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_PROTECTED;
    const bool hasList = security.hasList && wanted & DACL_SECURITY_INFORMATION;
    SECURITY_DESCRIPTOR_RELATIVE head{};
    head.Revision = SECURITY_DESCRIPTOR_REVISION;
    head.Control = SE_SELF_RELATIVE | (hasList ? security.control & OfList : 0);
    std::vector<BYTE> block(sizeof head);
    const auto here = [&] { return static_cast<DWORD>(block.size()); };
    if (security.owner && wanted & OWNER_SECURITY_INFORMATION) {
        head.Owner = here();
        PutSid(block, *security.owner);
    }
    if (security.group && wanted & GROUP_SECURITY_INFORMATION) {
        head.Group = here();
        PutSid(block, *security.group);
    }
    if (hasList && security.list) {
        head.Dacl = here();
        PutList(block, *security.list);
    }
    std::memcpy(block.data(), &head, sizeof head);
    return block;
}

DWORD ModeOf(const FileSecurity& security, uid_t owner, gid_t group, mode_t& mode) {
    if (!security.list) {
        mode = DataBits;
        return ERROR_SUCCESS;
    }
    const std::vector<Subject> subjects = SubjectsOf(owner, group);
    for (const AccessEntry& entry : *security.list) {
        if (!IsSimple(entry.type)) return ERROR_NOT_SUPPORTED;
        const bool denies = Counts(entry) && entry.type == ACCESS_DENIED_ACE_TYPE && BitsOf(entry);
        if (denies && std::ranges::none_of(subjects, [&](const Subject& s) { return s.Has(entry.sid); }))
            return ERROR_NOT_SUPPORTED;
    }
    mode = 0;
    for (const Subject& subject : subjects)
        mode |= BitsFor(subject, *security.list);
    return ERROR_SUCCESS;
}

DWORD ApplySecurity(int fd, const FileSecurity& security) {
    struct stat info;
    mode_t mode = 0;
    if (fstat(fd, &info) != 0) return CodeFromErrno(errno);
    if (DWORD code = ModeOf(security, info.st_uid, info.st_gid, mode)) return code;
    const mode_t wanted = (info.st_mode & 07777 & ~DataBits) | mode;
    const std::vector<BYTE> block = MakeDescriptor(security, DACL_SECURITY_INFORMATION);
    // By name for descriptors that were opened without a right to the data.
    const std::string name = "/proc/self/fd/" + std::to_string(fd);
    const auto keep = [&] {
        return fsetxattr(fd, Attribute, block.data(), block.size(), 0) == 0 ||
               (errno == EBADF && setxattr(name.c_str(), Attribute, block.data(), block.size(), 0) == 0);
    };
    const auto change = [&] {
        return fchmod(fd, wanted) == 0 || (errno == EBADF && chmod(name.c_str(), wanted) == 0);
    };
    // Whoever may write may keep a block, which the new bits or the old ones may allow. A file system without
    // such attributes keeps the bits alone.
    const bool isKept = keep();
    if (wanted != (info.st_mode & 07777) && !change()) return CodeFromErrno(errno);
    if (!isKept) keep();
    return ERROR_SUCCESS;
}

DWORD SecurityOf(int fd, FileSecurity& security) {
    struct stat info;
    if (fstat(fd, &info) != 0) return CodeFromErrno(errno);
    if (!S_ISREG(info.st_mode) || !ReadKept(fd, info, security)) security = SecurityOfMode(info);
    security.owner = SidOfAccount({.isGroup = false, .id = info.st_uid});
    security.group = SidOfAccount({.isGroup = true, .id = info.st_gid});
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
