// What objects get from the descriptors of those above.
#pragma once

#include "TQLib/security/SecDesc.h"
#include "TQLib/security/SecGenericMap.h"
#include "TQLib/security/SecIDArray.h"

#include <optional>

namespace Quellan::Sarvek {

// Who makes an object, as his token says.
struct SecCreator {
    SecID owner;
    SecID group;
    // For objects that nothing else gives a list.
    std::optional<SecACL> defaultList;
    // Who else may be made the owner: his user, and the groups with the owner's attribute.
    SecIDArray owners;
    // Whether he may say what is written down (SeSecurityPrivilege).
    bool maySetSACL = false;
};

// The rules by which one kind of objects inherits, as CreatePrivateObjectSecurityEx documents them: entries of
// the object's own come first, then those of the object above in their order, so that those of the nearest
// one come before those from farther above. An inherited entry that counts for the object has its generic
// rights mapped, and the new owner or group in the place of CREATOR OWNER or CREATOR GROUP; where it is handed
// on too and would be another one, there are two: that one, and the original for objects below alone. Entries
// whose kind is kept byte for byte are not inherited.
//
// A value; its members are for any thread. Failures: as `SecDesc`.
class TQLIB_API SecInheritance {
  public:
    // With the values of the platform's flags (SEF_DACL_AUTO_INHERIT and its like).
    enum Flag : DWORD {
        // The DACL, and the SACL, are marked as inherited and get what can be inherited, besides what they
        // are given.
        InheritDACL = 0x01,
        InheritSACL = 0x02,
        // A given list counts only where the list above has no entries for that kind of objects.
        DefaultForType = 0x04,
        // Does without the creator's right to set a SACL, and without his right to make that one the owner.
        AvoidPrivilegeCheck = 0x08,
        AvoidOwnerCheck = 0x10,
        OwnerFromParent = 0x20,
        GroupFromParent = 0x40
    };

    // `type`: the kind of objects that entries for kinds of objects are compared with.
    SecInheritance(const SecGenericMap& rights, bool isContainer,
                   const std::optional<SecObjectType>& type = {}) noexcept
        : m_rights(rights), m_type(type), m_isContainer(isContainer) {}

    // The descriptor of a new object. `parent` is that of the object above, `given` the one that its maker
    // asked for; either may be null. A list that is neither given nor inherited is the creator's default one.
    // Entries of a given list that are marked as inherited are left out, unless it is protected: then they
    // stay without the mark. Throws 1307 (ERROR_INVALID_OWNER) for an owner that the creator cannot make one,
    // and where there is none; 1308 (ERROR_INVALID_PRIMARY_GROUP) where there is no group; 1314
    // (ERROR_PRIVILEGE_NOT_HELD) for a given SACL that the creator must not set; 1008 (ERROR_NO_TOKEN) without
    // a creator and both flags that avoid checks.
    [[nodiscard]] SecDesc NewDescriptor(const SecDesc* parent, const SecDesc* given,
                                        const SecCreator* creator,
                                        DWORD flags = InheritDACL | InheritSACL) const;

    // The descriptor of an object whose parent has changed: the entries of its own as they are, and behind
    // them what it inherits now. A protected list, and the null one, stay as they are. The SACL stays too
    // unless it is asked for.
    [[nodiscard]] SecDesc Renewed(const SecDesc& object, const SecDesc& parent, bool renewSACL = false) const;

  private:
    // Who stands for CREATOR OWNER and CREATOR GROUP.
    struct NewOwners {
        const SecID& owner;
        const SecID& group;
    };

    bool IsInheritable(const SecACE& entry) const noexcept;
    bool IsReplaced(const SecACE& entry) const;
    SecACE Effective(const SecACE& entry, const NewOwners& owners, BYTE flags) const;
    void AddInherited(SecACL& list, const SecACL* parent, const NewOwners& owners) const;
    void AddGiven(SecACL& list, const SecACL& given, bool isProtected, const NewOwners& owners) const;
    void AddDefault(SecACL& list, const SecACL& entries, const NewOwners& owners) const;

    SecGenericMap m_rights;
    std::optional<SecObjectType> m_type;
    bool m_isContainer;
};

}  // namespace Quellan::Sarvek
