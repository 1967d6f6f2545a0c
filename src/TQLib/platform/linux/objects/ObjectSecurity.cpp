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

// With the list byte for byte, as entries of every kind count.
std::vector<BYTE> BlockOf(const FileSecurity& given, const void* descriptor) {
    const auto user = SidOfAccount({.isGroup = false, .id = ActingUser()});
    const auto group = SidOfAccount({.isGroup = true, .id = getegid()});
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

}  // namespace

DWORD SecurityOfNewObject(const SECURITY_ATTRIBUTES* attributes, ObjectSecurity& security) {
    // Whoever waits for an object changes it, and memory that is written is read: the kernel knows one right.
    constexpr DWORD AnyRight = SYNCHRONIZE | EVENT_MODIFY_STATE | MUTEX_MODIFY_STATE |
                               SEMAPHORE_MODIFY_STATE | GENERIC_ALL | GENERIC_EXECUTE | GENERIC_WRITE;
    security = {};
    if (!attributes || !attributes->lpSecurityDescriptor) return ERROR_SUCCESS;
    FileSecurity given;
    if (DWORD code = ReadDescriptor(attributes->lpSecurityDescriptor, given)) return code;
    if (!given.hasList) return ERROR_SUCCESS;
    security.block = BlockOf(given, attributes->lpSecurityDescriptor);
    if (given.list)
        for (AccessEntry& entry : *given.list)
            entry.mask = entry.mask & AnyRight ? GENERIC_READ | GENERIC_WRITE : 0;
    mode_t bits;
    if (DWORD code = ModeOf(given, geteuid(), getegid(), bits)) return code;
    for (const mode_t both : {mode_t{S_IRGRP | S_IWGRP}, mode_t{S_IROTH | S_IWOTH}})
        if ((bits & both) == both) security.mode |= both;
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
