// The rules by which a descriptor answers who may do what: the one place where they stand, for the library's
// check and for the objects of the layer. Works on the published blocks; nothing here throws or allocates, and
// descriptors may be damaged in any way.
#pragma once

#include "TQLib/platform/GenericRights.h"
#include "TQLib/platform/SecurityBlocks.h"
#include "TQLib/platform/Types.h"

#include <cstddef>
#include <span>

namespace Quellan::Platform {

// A whole identifier, and what it may be to its bearer (SE_GROUP_ENABLED, SE_GROUP_USE_FOR_DENY_ONLY). Laid
// out as the platform's SID_AND_ATTRIBUTES.
struct SubjectId {
    const void* sid = nullptr;
    DWORD attributes = 0;
};

enum SubjectPrivilege : DWORD { SecurityPrivilege = 1, TakeOwnershipPrivilege = 2, RelabelPrivilege = 4 };

constexpr DWORD MediumLevel = 0x2000;

// Who wants access. Attributes (claims) are blocks in the published form of a resource attribute's data.
struct AccessSubject {
    SubjectId user;  // none: nobody; counts as enabled unless it is for denying only
    std::span<const SubjectId> groups;
    std::span<const SubjectId> restricting;  // whatever their attributes are; none: not restricted
    bool isWriteRestricted = false;          // `restricting` are asked for writing alone
    std::span<const SubjectId> deviceGroups;
    std::span<const ByteView> userAttributes;
    std::span<const ByteView> deviceAttributes;
    DWORD level = MediumLevel;
    bool isHeldByLevels = true;  // what the label of an object forbids those below
    DWORD privileges = 0;        // enabled ones, SubjectPrivilege
};

// A node of a tree of object types. The nodes stand as one meets them from the root, which alone has the
// level 0, downwards; below a node stand those of the next level.
struct AccessNode {
    WORD level = 0;
    const BYTE* type = nullptr;  // 16 bytes
    DWORD granted = 0;           // the answer: what was asked for, 0 where it is refused
    DWORD allowed = 0;           // the check's own
    DWORD denied = 0;            // likewise
};

struct AccessQuestion {
    ByteView descriptor;  // in one piece (self-relative)
    DWORD wanted = 0;     // without generic rights; MAXIMUM_ALLOWED is taken
    GenericRights rights;
    const void* self = nullptr;  // whom PRINCIPAL SELF stands for
    std::span<const ByteView> localAttributes;
    std::span<AccessNode> tree;
};

// The platform's codes.
enum class AccessCode : DWORD {
    Granted = 0,
    Denied = 5,
    PrivilegeMissing = 1314,
    // What is no question.
    InvalidTree = 87,
    InvalidList = 1336,
    InvalidIdentifier = 1337,
    InvalidDescriptor = 1338,  // also one without an owner or a group
    GenericRightsWanted = 1360
};

struct AccessAnswer {
    AccessCode code = AccessCode::Denied;
    DWORD granted = 0;         // 0 unless the code is Granted
    DWORD usedPrivileges = 0;  // SubjectPrivilege
};

// Whether the subject may do all that is wanted. With a tree the answer is that of its root, and each node
// tells its own.
AccessAnswer CheckAccess(const AccessSubject& subject, const AccessQuestion& question) noexcept;

// Whether one of them is that identifier: one that is enabled, `forDenying` also one for denying only.
bool HasIdentifier(std::span<const SubjectId> ids, const BYTE* sid, bool forDenying) noexcept;
// Whether that is the subject's user or a group of his, in the same way.
bool HasIdentifier(const AccessSubject& subject, const BYTE* sid, bool forDenying) noexcept;

}  // namespace Quellan::Platform
