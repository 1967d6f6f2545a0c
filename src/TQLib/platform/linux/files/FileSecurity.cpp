#include "TQLib/platform/linux/files/FileSecurity.h"

#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/accounts/WellKnownSids.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/files/PosixLists.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

#include <cerrno>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

constexpr const char* Attribute = "user.tqlib.security";
constexpr const char* AccessAttribute = "system.posix_acl_access";
constexpr const char* InheritedAttribute = "system.posix_acl_default";
constexpr std::size_t MostKept = 64 * 1024;
constexpr std::size_t UsuallyKept = 2 * 1024;
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

DWORD ReadEntry(std::span<const BYTE> block, AccessEntry& entry) noexcept {
    const auto header = Read<ACE_HEADER>(block.data());
    entry = {.type = header.AceType, .flags = header.AceFlags, .mask = 0, .sid = {}};
    if (block.size() < EntryHead) return ERROR_INVALID_ACL;
    entry.mask = Read<DWORD>(block.data() + offsetof(ACCESS_ALLOWED_ACE, Mask));
    if (!HasSimpleLayout(entry.type)) return ERROR_SUCCESS;
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

// The extended attributes of a file, also of one that was opened without a right to the data.
class Attributes {
  public:
    explicit Attributes(int fd)
        : m_fd(fd), m_name("/proc/self/fd/" + std::to_string(fd)), m_room(UsuallyKept) {}

    // Nothing where there is none, or the file system has no such attributes.
    DWORD Get(const char* name, std::optional<std::vector<BYTE>>& value) {
        value.reset();
        ssize_t size = Read(name);
        if (size < 0 && errno == ERANGE && m_room.size() < MostKept) {
            m_room.resize(MostKept);
            size = Read(name);
        }
        if (size < 0) return errno == ENODATA || errno == EOPNOTSUPP ? ERROR_SUCCESS : CodeFromErrno(errno);
        value.emplace(m_room.begin(), m_room.begin() + size);
        return ERROR_SUCCESS;
    }

    // Without a value there is none afterwards. An errno value.
    int Set(const char* name, const std::optional<std::vector<BYTE>>& value) {
        int result = -1;
        if (value) {
            result = fsetxattr(m_fd, name, value->data(), value->size(), 0);
            if (result != 0 && errno == EBADF)
                result = setxattr(m_name.c_str(), name, value->data(), value->size(), 0);
        } else {
            result = fremovexattr(m_fd, name);
            if (result != 0 && errno == EBADF) result = removexattr(m_name.c_str(), name);
            if (result != 0 && (errno == ENODATA || errno == EOPNOTSUPP)) return 0;
        }
        return result == 0 ? 0 : errno;
    }

    int SetMode(mode_t mode) {
        return fchmod(m_fd, mode) == 0 || (errno == EBADF && chmod(m_name.c_str(), mode) == 0) ? 0 : errno;
    }

  private:
    ssize_t Read(const char* name) noexcept {
        const ssize_t size = fgetxattr(m_fd, name, m_room.data(), m_room.size());
        if (size >= 0 || errno != EBADF) return size;
        return getxattr(m_name.c_str(), name, m_room.data(), m_room.size());
    }

    const int m_fd;
    const std::string m_name;
    std::vector<BYTE> m_room;
};

// What the kernel knows of who may do what with a file.
struct KernelState {
    struct stat info;
    std::optional<std::vector<BYTE>> accessBlock;  // none: the mode says it all
    std::optional<std::vector<BYTE>> inheritedBlock;
    PosixList access;
    std::optional<PosixList> inherited;
};

DWORD ReadKernel(int fd, Attributes& attributes, KernelState& state) {
    if (fstat(fd, &state.info) != 0) return CodeFromErrno(errno);
    const mode_t mode = state.info.st_mode;
    state.access = {mode >> 6 & 7, mode >> 3 & 7, mode & 7, {}};
    if (DWORD code = attributes.Get(AccessAttribute, state.accessBlock)) return code;
    if (state.accessBlock && !ParsePosixBlock(*state.accessBlock, state.access)) return ERROR_INVALID_DATA;
    if (!S_ISDIR(mode)) return ERROR_SUCCESS;
    if (DWORD code = attributes.Get(InheritedAttribute, state.inheritedBlock)) return code;
    if (state.inheritedBlock && !ParsePosixBlock(*state.inheritedBlock, state.inherited.emplace()))
        return ERROR_INVALID_DATA;
    return ERROR_SUCCESS;
}

std::optional<PosixList> InheritedBy(const FileSecurity& security, const PosixList& access,
                                     const PosixFile& file) {
    if (!file.isFolder || !security.list) return std::nullopt;
    return InheritedPosixListOf(*security.list, access, file);
}

const std::vector<AccessEntry>* ListIn(const FileSecurity& security) noexcept {
    return security.list ? &*security.list : nullptr;
}

// A descriptor that says what the kernel says.
FileSecurity SecurityOfKernel(const KernelState& state) {
    FileSecurity security;
    security.control = SE_DACL_PRESENT;
    security.hasList = true;
    security.list = EntriesOf(state.access, PosixFileOf(state.info));
    if (state.inherited)
        std::ranges::copy(InheritedEntriesOf(*state.inherited), std::back_inserter(*security.list));
    return security;
}

// False where nothing was kept, or what was kept has been overtaken. Whoever may write a file may replace
// what is kept with it: it tells more than the kernel's lists do, and never of a right that they do not give.
bool ReadKept(Attributes& attributes, const KernelState& state, FileSecurity& security) {
    std::optional<std::vector<BYTE>> block;
    if (attributes.Get(Attribute, block) || !block) return false;
    const PosixFile file = PosixFileOf(state.info);
    PosixList access;
    const bool isOfKernels = ParseDescriptor(*block, security) == ERROR_SUCCESS && security.hasList &&
                             security.list && PosixListOf(ListIn(security), file, access) == ERROR_SUCCESS &&
                             access == state.access && InheritedBy(security, access, file) == state.inherited;
    if (isOfKernels) security.list = Believable(std::move(*security.list), access, state.inherited, file);
    return isOfKernels;
}

// The changes of one call, each of which is undone where a later one fails.
class Change {
  public:
    Change(int fd, const KernelState& before, Attributes& attributes) noexcept
        : m_fd(fd), m_before(before), m_attributes(attributes) {}
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

    ~Change() {
        if (m_stays) return;
        if (m_isKeptAnew) m_attributes.Set(Attribute, m_kept);
        if (m_isInheritedAnew) m_attributes.Set(InheritedAttribute, m_before.inheritedBlock);
        if (m_isOwnedAnew) fchownat(m_fd, "", m_before.info.st_uid, m_before.info.st_gid, AT_EMPTY_PATH);
        if (m_isListedAnew) m_attributes.Set(AccessAttribute, m_before.accessBlock);
        if (m_isListedAnew || m_isOwnedAnew) m_attributes.SetMode(m_before.info.st_mode & 07777);
    }

    // The old group's bits are not for the new group.
    int SetOwner(uid_t owner, gid_t group) {
        m_isOwnedAnew = true;
        if (group != m_before.info.st_gid)
            if (const int error = m_attributes.SetMode(m_before.info.st_mode & 07707)) return error;
        return fchownat(m_fd, "", owner, group, AT_EMPTY_PATH) == 0 ? 0 : errno;
    }

    // A list without names is the mode alone. A program that runs as its owner does not run as the next one.
    int SetAccess(const PosixList& list) {
        if (list == m_before.access && !m_isOwnedAnew) return 0;
        m_isListedAnew = true;
        if (!list.named.empty() || m_before.accessBlock) {
            const int error = m_attributes.Set(AccessAttribute, PosixBlock(list));
            if (error || !m_isOwnedAnew) return error;
        }
        const mode_t special = m_isOwnedAnew && !S_ISDIR(m_before.info.st_mode) ? S_ISVTX : 07000;
        return m_attributes.SetMode((m_before.info.st_mode & special) | list.Mode());
    }

    int SetInherited(const std::optional<PosixList>& list) {
        if (list == m_before.inherited) return 0;
        m_isInheritedAnew = true;
        return m_attributes.Set(InheritedAttribute, list ? std::optional(PosixBlock(*list)) : std::nullopt);
    }

    // Before or after all the rest.
    int Keep(const std::vector<BYTE>& block, bool isFirst) {
        if (isFirst && m_attributes.Get(Attribute, m_kept)) m_kept.reset();
        const int error = m_attributes.Set(Attribute, block);
        m_isKeptAnew = isFirst && error == 0;
        return error;
    }

    void Stays() noexcept { m_stays = true; }

  private:
    const int m_fd;
    const KernelState& m_before;
    Attributes& m_attributes;
    std::optional<std::vector<BYTE>> m_kept;
    bool m_isOwnedAnew = false;
    bool m_isListedAnew = false;
    bool m_isInheritedAnew = false;
    bool m_isKeptAnew = false;
    bool m_stays = false;
};

// Whether the kernel's lists alone have to do: the file system, or this kind of file, keeps nothing else, or the
// caller may not write the file.
bool KeepsNothing(int error) noexcept {
    return error == EOPNOTSUPP || error == EPERM || error == EACCES;
}

DWORD AccountFor(const SidValue& sid, bool isGroup, DWORD missing, DWORD& id) noexcept {
    const bool isRoots = sid == FindWellKnownSid(WinBuiltinAdministratorsSid)->Sid() ||
                         sid == FindWellKnownSid(WinLocalSystemSid)->Sid();
    const auto account = AccountOfSid(sid.Get());
    if (!isRoots && (!account || account->isGroup != isGroup)) return missing;
    id = isRoots ? 0 : account->id;
    return ERROR_SUCCESS;
}

DWORD ReadOwners(const FileSecurity& security, DWORD given, struct stat& info) noexcept {
    if (given & OWNER_SECURITY_INFORMATION) {
        if (!security.owner) return ERROR_INVALID_OWNER;
        if (DWORD code = AccountFor(*security.owner, false, ERROR_INVALID_OWNER, info.st_uid)) return code;
    }
    if (given & GROUP_SECURITY_INFORMATION) {
        if (!security.group) return ERROR_INVALID_PRIMARY_GROUP;
        return AccountFor(*security.group, true, ERROR_INVALID_PRIMARY_GROUP, info.st_gid);
    }
    return ERROR_SUCCESS;
}

}  // namespace

bool HasSimpleLayout(BYTE type) noexcept {
    return type <= SYSTEM_AUDIT_ACE_TYPE || type == SYSTEM_MANDATORY_LABEL_ACE_TYPE;
}

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
    constexpr WORD OfList = SE_DACL_PRESENT | SE_DACL_DEFAULTED | SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED;
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

DWORD PutDescriptor(const FileSecurity& security, DWORD wanted, void* buffer, DWORD size, DWORD& needed) {
    constexpr DWORD Offered =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    if (wanted & ~Offered) return ERROR_NOT_SUPPORTED;
    const std::vector<BYTE> block = MakeDescriptor(security, wanted);
    needed = static_cast<DWORD>(block.size());
    if (size < needed) return ERROR_INSUFFICIENT_BUFFER;
    if (!buffer) return ERROR_NOACCESS;
    std::ranges::copy(block, static_cast<BYTE*>(buffer));
    return ERROR_SUCCESS;
}

DWORD ModeOf(const FileSecurity& security, uid_t owner, gid_t group, mode_t& mode) {
    PosixList list;
    if (DWORD code = PosixListOf(ListIn(security), {.owner = owner, .group = group}, list)) return code;
    mode = list.named.empty() ? list.Mode() : list.owner << 6;
    return ERROR_SUCCESS;
}

DWORD ApplySecurity(int fd, const FileSecurity& given, DWORD parts) {
    constexpr DWORD Offered = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                              DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION |
                              UNPROTECTED_DACL_SECURITY_INFORMATION;
    if (parts & ~Offered) return ERROR_NOT_SUPPORTED;
    if (parts & DACL_SECURITY_INFORMATION && !given.hasList) return ERROR_INVALID_SECURITY_DESCR;
    Attributes attributes(fd);
    KernelState before;
    if (DWORD code = ReadKernel(fd, attributes, before)) return code;
    struct stat info = before.info;
    if (DWORD code = ReadOwners(given, parts, info)) return code;
    // The list stays what it is, whoever the owner is.
    FileSecurity security;
    if (parts & DACL_SECURITY_INFORMATION)
        security = given;
    else if (!ReadKept(attributes, before, security))
        security = SecurityOfKernel(before);
    if (parts & PROTECTED_DACL_SECURITY_INFORMATION) security.control |= SE_DACL_PROTECTED;
    if (parts & UNPROTECTED_DACL_SECURITY_INFORMATION)
        security.control &= static_cast<WORD>(~SE_DACL_PROTECTED);
    const PosixFile file = PosixFileOf(info);
    PosixList access;
    if (DWORD code = PosixListOf(ListIn(security), file, access)) return code;
    const std::vector<BYTE> block = MakeDescriptor(security, DACL_SECURITY_INFORMATION);

    Change change(fd, before, attributes);
    if (info.st_uid != before.info.st_uid || info.st_gid != before.info.st_gid)
        if (const int error = change.SetOwner(info.st_uid, info.st_gid)) return CodeFromErrno(error);
    // What is kept counts only together with the lists; it is kept while the owner may write.
    const bool isKeptFirst = !(access.owner & 2);
    int kept = isKeptFirst ? change.Keep(block, true) : 0;
    if (const int error = change.SetAccess(access)) return CodeFromErrno(error);
    if (const int error = change.SetInherited(InheritedBy(security, access, file)))
        return CodeFromErrno(error);
    if (!isKeptFirst) kept = change.Keep(block, false);
    if (kept != 0 && !KeepsNothing(kept)) return CodeFromErrno(kept);
    change.Stays();
    return ERROR_SUCCESS;
}

DWORD SecurityOf(int fd, FileSecurity& security) {
    Attributes attributes(fd);
    KernelState state;
    // Somebody whom the thread impersonates may not get at the lists of a file that he cannot open: the mode has to do.
    const DWORD code = ReadKernel(fd, attributes, state);
    if (code && code != ERROR_ACCESS_DENIED) return code;
    if (!ReadKept(attributes, state, security)) security = SecurityOfKernel(state);
    security.owner = SidOfAccount({.isGroup = false, .id = state.info.st_uid});
    security.group = SidOfAccount({.isGroup = true, .id = state.info.st_gid});
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
