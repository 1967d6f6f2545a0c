#include "TQLib/platform/linux/objects/ObjectSecurity.h"

#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/Files.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"
#include "TQLib/platform/linux/objects/Events.h"
#include "TQLib/platform/linux/objects/Mutexes.h"
#include "TQLib/platform/linux/objects/Semaphores.h"

#include <cstring>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

// Where the list of a descriptor that was read without a fault lies; null for the null list.
const BYTE* ListIn(const void* descriptor) noexcept {
    const auto* const head = static_cast<const SECURITY_DESCRIPTOR*>(descriptor);
    if (!(head->Control & SE_SELF_RELATIVE)) return reinterpret_cast<const BYTE*>(head->Dacl);
    const DWORD at = static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(descriptor)->Dacl;
    return at ? static_cast<const BYTE*>(descriptor) + at : nullptr;
}

// Whom an object belongs to.
struct Owners {
    uid_t user;
    gid_t group;
};

// With the list byte for byte, as entries of every kind count.
std::vector<BYTE> BlockOf(const FileSecurity& given, const void* descriptor, const Owners& owners) {
    const auto user = SidOfAccount({.isGroup = false, .id = owners.user});
    const auto group = SidOfAccount({.isGroup = true, .id = owners.group});
    SECURITY_DESCRIPTOR_RELATIVE head{};
    head.Revision = SECURITY_DESCRIPTOR_REVISION;
    head.Control =
        static_cast<WORD>((given.control & (SE_DACL_PRESENT | SE_DACL_PROTECTED)) | SE_SELF_RELATIVE);
    std::vector<BYTE> block(sizeof head);
    const auto append = [&](const void* bytes, std::size_t size) {
        const auto at = static_cast<DWORD>(block.size());
        block.insert(block.end(), static_cast<const BYTE*>(bytes), static_cast<const BYTE*>(bytes) + size);
        return at;
    };
    const auto appendSid = [&](const std::optional<SidValue>& first, const std::optional<SidValue>& second) {
        const auto& sid = first ? first : second;
        return sid ? append(&*sid, sid->Length()) : 0;
    };
    head.Owner = appendSid(given.owner, user);
    head.Group = appendSid(given.group, group);
    if (const BYTE* const list = ListIn(descriptor)) {
        ACL acl;
        std::memcpy(&acl, list, sizeof acl);
        head.Dacl = append(list, acl.AclSize);
    }
    std::memcpy(block.data(), &head, sizeof head);
    return block;
}

// `given` is what was read from the descriptor.
DWORD SecurityFrom(FileSecurity given, const void* descriptor, const Owners& owners,
                   ObjectSecurity& security) {
    // Whoever waits for an object changes it, and memory that is written is read: the kernel knows one right.
    constexpr DWORD AnyRight = SYNCHRONIZE | EVENT_MODIFY_STATE | MUTEX_MODIFY_STATE |
                               SEMAPHORE_MODIFY_STATE | GENERIC_ALL | GENERIC_EXECUTE | GENERIC_WRITE;
    security = {};
    security.block = BlockOf(given, descriptor, owners);
    if (given.list)
        for (AccessEntry& entry : *given.list)
            entry.mask = entry.mask & AnyRight ? GENERIC_READ | GENERIC_WRITE : 0;
    mode_t bits;
    if (DWORD code = ModeOf(given, owners.user, owners.group, bits)) return code;
    for (const mode_t both : {mode_t{S_IRGRP | S_IWGRP}, mode_t{S_IROTH | S_IWOTH}})
        if ((bits & both) == both) security.mode |= both;
    return ERROR_SUCCESS;
}

}  // namespace

DWORD SecurityOfNewObject(const SECURITY_ATTRIBUTES* attributes, ObjectSecurity& security) {
    security = {};
    if (!attributes || !attributes->lpSecurityDescriptor) return ERROR_SUCCESS;
    FileSecurity given;
    if (DWORD code = ReadDescriptor(attributes->lpSecurityDescriptor, given)) return code;
    if (!given.hasList) return ERROR_SUCCESS;
    return SecurityFrom(std::move(given), attributes->lpSecurityDescriptor, {ActingUser(), getegid()},
                        security);
}

DWORD SecurityWithList(const void* descriptor, std::span<const BYTE> before, const struct stat& file,
                       ObjectSecurity& security) {
    FileSecurity given, known;
    if (DWORD code = ReadDescriptor(descriptor, given)) return code;
    if (!given.hasList) return ERROR_INVALID_SECURITY_DESCR;
    if (!before.empty())
        if (DWORD code = ParseDescriptor(before, known)) return code;
    given.owner = known.owner;
    given.group = known.group;
    return SecurityFrom(std::move(given), descriptor, {file.st_uid, file.st_gid}, security);
}

}  // namespace Quellan::Platform
