// Who may do what.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/security/SecGenericMap.h"
#include "TQLib/security/SecIDArray.h"
#include "TQLib/security/SecIDAttrArray.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <memory>
#include <span>
#include <vector>

namespace Quellan::Platform {
struct AccessNode;
}

namespace Quellan::Sarvek {

// Who wants access: a user, the groups he belongs to, and what else counts about him. Usually a token fills
// it. It is made ready once and then asked any number of times, also by several threads at a time as long as
// nobody changes it; it can be moved, not copied, and one that was moved from can only be assigned and
// destroyed.
//
// Attributes of identifiers are the platform's (SE_GROUP_ENABLED, SE_GROUP_USE_FOR_DENY_ONLY): a group counts
// where it is enabled, one for denying only where something is denied. The user counts without any; a null
// identifier is nobody.
//
// Failures: exhausted memory throws 14 (ERROR_OUTOFMEMORY); the subject is unchanged then.
class TQLIB_API SecSubject {
  public:
    explicit SecSubject(SecIDAttr user, SecIDAttrArray groups = {});
    SecSubject(SecSubject&&) noexcept;
    SecSubject& operator=(SecSubject&&) noexcept;
    virtual ~SecSubject();

    // Then only that is granted which these identifiers are granted too, with `forWritingOnly` of what is
    // neither reading nor executing. None: not restricted.
    SecSubject& Restrict(const SecIDArray& ids, bool forWritingOnly = false);
    // The groups of the machine that he works at, for conditions.
    SecSubject& SetDeviceGroups(SecIDAttrArray groups);
    // What conditions find as @User. and @Device. attributes: each a block as a resource attribute's data are
    // (CLAIM_SECURITY_ATTRIBUTE_RELATIVE_V1).
    SecSubject& SetUserAttributes(std::vector<Corvel::BYTEBuf> attributes);
    SecSubject& SetDeviceAttributes(std::vector<Corvel::BYTEBuf> attributes);
    // Those that are enabled. Of them SeSecurityPrivilege, SeTakeOwnershipPrivilege and SeRelabelPrivilege play
    // a part.
    SecSubject& SetPrivileges(const SecPrivilegeSet& enabled);
    // The integrity level, such as 0x2000 for medium, which is the one to begin with. Without `isHeld` labels
    // of objects mean nothing to the subject.
    SecSubject& SetLevel(DWORD rid, bool isHeld = true) noexcept;

  private:
    friend class SecAccess;
    struct Parts;

    std::unique_ptr<Parts> m_parts;
};

// What else a question about access may tell. What it shows must outlive the call.
struct SecCircumstances {
    const SecID* self = nullptr;                  // whom "principal self" stands for
    std::span<const Corvel::BYTEBuf> attributes;  // which conditions name without a source
};

// What somebody may do with an object, by the object's descriptor. It is made ready once and then asked any
// number of times, by several threads at a time too; a question without types of objects allocates nothing.
//
// The rules, in their order:
// - Nothing is granted where nothing is asked for. All that is asked for is granted, or nothing.
// - A subject below the object's label (the first one that is for the object itself; medium and "no write-up"
//   where there is none) is granted nothing but what the label leaves: of reading, writing and executing those
//   that it does not forbid, and WRITE_OWNER with SeRelabelPrivilege. That holds for all that follows.
// - ACCESS_SYSTEM_SECURITY is granted by SeSecurityPrivilege and by no list, WRITE_OWNER by
//   SeTakeOwnershipPrivilege also against the list.
// - Without a list, and with the null list, everything else is granted.
// - The owner has READ_CONTROL and WRITE_DAC, also against the list, unless an entry is for "owner rights"
//   (S-1-3-4); such an entry is then for the owner.
// - Of each right the first entry decides that allows or denies it to the subject. Inherit-only entries, and
//   such for the creator, are for nobody; those for "principal self" are for whom the question names.
// - With restricting identifiers the list is asked a second time, for these alone.
// - An entry with a condition allows where it is true, and denies where it is true or cannot be told.
// - An entry for a type of objects is for the nodes of that type and those below; a denied part is denied to
//   the nodes above too. In a question without types it denies and never allows.
// - MAXIMUM_ALLOWED asks for all that would be granted if asked for alone, but for what needs a privilege.
//
// Scoped policies, process trust and access filters are not looked at.
class TQLIB_API SecAccess {
  public:
    // Throws as `SecDesc::Block`.
    SecAccess(const SecDesc& descriptor, const SecGenericMap& map);
    virtual ~SecAccess();

    struct Answer {
        bool isGranted = false;
        // What is granted; 0 where it is refused.
        DWORD granted = 0;
        // Why it is refused: 5 (ERROR_ACCESS_DENIED), 1314 (ERROR_PRIVILEGE_NOT_HELD).
        DWORD code = 0;
        bool usedSecurityPrivilege = false;
        bool usedTakeOwnershipPrivilege = false;
    };
    // A node of a tree of types: the kind of the object, its property sets, their properties. They stand from
    // the one of level 0 downwards, below each those of the next level, up to 4.
    struct Node {
        WORD level = 0;
        SecObjectType type{};
        // The answer: what is granted; 0 where it is refused.
        DWORD granted = 0;
    };

    // Throws 1360 (ERROR_GENERIC_NOT_MAPPED) where generic rights are asked for, 1338
    // (ERROR_INVALID_SECURITY_DESCR) for a descriptor without an owner or a group.
    [[nodiscard]] Answer Check(const SecSubject& subject, DWORD wanted,
                               const SecCircumstances& circumstances = {}) const;
    // The answer for the whole is that of the first node. Throws as above, and 87 (ERROR_INVALID_PARAMETER)
    // where the nodes are no tree.
    Answer Check(const SecSubject& subject, DWORD wanted, std::span<Node> nodes,
                 const SecCircumstances& circumstances = {}) const;
    // All that the subject may do; nothing where even that is nothing. Throws as `Check`.
    [[nodiscard]] DWORD RightsOf(const SecSubject& subject) const;
    // All that somebody may do who has that identifier and no other.
    [[nodiscard]] DWORD RightsOf(const SecID& id) const;

  private:
    [[nodiscard]] Answer Ask(const SecSubject& subject, DWORD wanted, std::span<Platform::AccessNode> tree,
                             const SecCircumstances& circumstances) const;

    Corvel::BYTEBuf m_block;
    SecGenericMap m_map;
};

}  // namespace Quellan::Sarvek
