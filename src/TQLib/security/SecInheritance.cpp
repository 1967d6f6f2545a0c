#include "TQLib/security/SecInheritance.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/ControlMarks.h"
#include "TQLib/security/internal/EntryParts.h"

#include <algorithm>

namespace Quellan::Sarvek {

using Corvel::TQSysException;

namespace {

constexpr BYTE Inheritable = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
constexpr BYTE Audited = SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG;

BYTE Marks(unsigned flags) noexcept {
    return static_cast<BYTE>(flags);
}

const SecID& CreatorOwner() {
    static const SecID id(SecIDAuth::CreatorSecIDAuth(), 0);
    return id;
}

const SecID& CreatorGroup() {
    static const SecID id(SecIDAuth::CreatorSecIDAuth(), 1);
    return id;
}

// The entry with another identifier, other rights and flags, and without an inherited type.
SecACE Changed(const SecACE& entry, const SecID& id, DWORD rights, BYTE flags) {
    const bool hasType = entry.ObjectType().has_value();
    SecACE changed(hasType ? entry.GetKind() : KindWithoutTypes(entry.GetKind()), id, rights, flags);
    if (hasType) changed = changed.ForObjects(entry.ObjectType());
    return entry.Data().IsEmpty() ? changed : changed.WithData(entry.Data().Data(), entry.Data().Size());
}

[[noreturn]] void Refuse(DWORD code) {
    throw TQSysException(code, L"SecInheritance::NewDescriptor");
}

// The parts of a descriptor that say the same of the DACL and of the SACL.
struct ListPart {
    const SecACL* (SecDesc::*list)() const noexcept;
    SecDesc& (SecDesc::*set)(SecACL, bool) noexcept;
    DWORD flag;  // that it inherits
    WORD present;
    WORD isProtected;
    WORD inherited;
};

constexpr ListPart Dacl = {&SecDesc::DACL,  &SecDesc::SetDACL, SecInheritance::InheritDACL,
                           SE_DACL_PRESENT, SE_DACL_PROTECTED, DaclInherited};
constexpr ListPart Sacl = {&SecDesc::SACL,  &SecDesc::SetSACL, SecInheritance::InheritSACL,
                           SE_SACL_PRESENT, SE_SACL_PROTECTED, SaclInherited};

}  // namespace

bool SecInheritance::IsInheritable(const SecACE& entry) const noexcept {
    if (!(entry.Flags() & Inheritable) || SecACE::IsOpaque(entry.GetKind())) return false;
    // What goes one level deep ends here where it is for objects of the other sort.
    const BYTE forThisSort = m_isContainer ? CONTAINER_INHERIT_ACE : OBJECT_INHERIT_ACE;
    return entry.Flags() & forThisSort || (m_isContainer && !(entry.Flags() & NO_PROPAGATE_INHERIT_ACE));
}

// Whether the entry that counts for an object differs from the one that is handed on.
bool SecInheritance::IsReplaced(const SecACE& entry) const {
    return m_rights.Map(entry.Rights()) != entry.Rights() || entry.InheritedObjectType() ||
           entry.SID() == CreatorOwner() || entry.SID() == CreatorGroup();
}

SecACE SecInheritance::Effective(const SecACE& entry, const NewOwners& owners, BYTE flags) const {
    const SecID& id = entry.SID() == CreatorOwner() && owners.owner   ? owners.owner
                      : entry.SID() == CreatorGroup() && owners.group ? owners.group
                                                                      : entry.SID();
    return Changed(entry, id, m_rights.Map(entry.Rights()), Marks((entry.Flags() & Audited) | flags));
}

void SecInheritance::AddInherited(SecACL& list, const SecACL* parent, const NewOwners& owners) const {
    if (!parent) return;
    for (const SecACE& entry : *parent) {
        if (!IsInheritable(entry)) continue;
        const BYTE forThisSort = m_isContainer ? CONTAINER_INHERIT_ACE : OBJECT_INHERIT_ACE;
        const bool isForType = !entry.InheritedObjectType() || entry.InheritedObjectType() == m_type;
        const bool counts = entry.Flags() & forThisSort && isForType;
        const bool isHandedOn = m_isContainer && !(entry.Flags() & NO_PROPAGATE_INHERIT_ACE);
        const unsigned kept = (entry.Flags() & (Audited | Inheritable)) | INHERITED_ACE;
        if (counts && isHandedOn && !IsReplaced(entry)) {
            list.Add(entry.WithFlags(Marks(kept)));
            continue;
        }
        if (counts) list.Add(Effective(entry, owners, INHERITED_ACE));
        if (isHandedOn) list.Add(entry.WithFlags(Marks(kept | INHERIT_ONLY_ACE)));
    }
}

void SecInheritance::AddGiven(SecACL& list, const SecACL& given, bool isProtected,
                              const NewOwners& owners) const {
    for (const SecACE& entry : given) {
        if (entry.IsInherited() && !isProtected) continue;
        const BYTE flags = Marks(entry.Flags() & ~INHERITED_ACE);
        if (SecACE::IsOpaque(entry.GetKind())) {
            list.Add(entry);
            continue;
        }
        const bool isHandedOn = m_isContainer && flags & Inheritable;
        if (entry.IsInheritOnly()) {
            if (isHandedOn) list.Add(entry.WithFlags(Marks(flags)));
        } else if (isHandedOn && !IsReplaced(entry)) {
            list.Add(entry.WithFlags(Marks(flags)));
        } else {
            list.Add(Effective(entry, owners, 0));
            if (isHandedOn) list.Add(entry.WithFlags(Marks(flags | INHERIT_ONLY_ACE)));
        }
    }
}

void SecInheritance::AddDefault(SecACL& list, const SecACL& entries, const NewOwners& owners) const {
    for (const SecACE& entry : entries)
        list.Add(Effective(entry, owners, 0));
}

SecDesc SecInheritance::NewDescriptor(const SecDesc* parent, const SecDesc* given, const SecCreator* creator,
                                      DWORD flags) const {
    if (!creator && (flags & AvoidPrivilegeCheck) == 0 && (flags & AvoidOwnerCheck) == 0)
        Refuse(ERROR_NO_TOKEN);
    const auto chosen = [&](const SecID& (SecDesc::*part)() const noexcept, Flag fromParent,
                            const SecID SecCreator::*own) {
        if (given && !(given->*part)().IsNull()) return (given->*part)();
        if (parent && flags & fromParent && !(parent->*part)().IsNull()) return (parent->*part)();
        return creator ? creator->*own : SecID();
    };
    const SecID owner = chosen(&SecDesc::Owner, OwnerFromParent, &SecCreator::owner);
    const SecID group = chosen(&SecDesc::Group, GroupFromParent, &SecCreator::group);
    if (owner.IsNull()) Refuse(ERROR_INVALID_OWNER);
    if (group.IsNull()) Refuse(ERROR_INVALID_PRIMARY_GROUP);
    if (!(flags & AvoidOwnerCheck) &&
        (!creator || (owner != creator->owner && !creator->owners.Contains(owner))))
        Refuse(ERROR_INVALID_OWNER);
    if (given && given->Control() & SE_SACL_PRESENT && !(flags & AvoidPrivilegeCheck) &&
        !(creator && creator->maySetSACL))
        Refuse(ERROR_PRIVILEGE_NOT_HELD);

    SecDesc result;
    result.SetOwner(owner).SetGroup(group);
    const NewOwners owners{owner, group};
    for (const ListPart& part : {Dacl, Sacl}) {
        const SecACL* const above = parent ? (parent->*part.list)() : nullptr;
        const bool isAsked = flags & part.flag;
        bool isGiven = given && given->Control() & part.present;
        if (isGiven && flags & DefaultForType && above && m_type &&
            std::ranges::any_of(*above, [&](const SecACE& entry) {
                return IsInheritable(entry) && entry.InheritedObjectType() == m_type;
            }))
            isGiven = false;
        const SecACL* const own = isGiven ? (given->*part.list)() : nullptr;
        if (isGiven && !own) {
            // The null list has no entries, and none can be added to it.
            if (part.present == SE_DACL_PRESENT) result.SetNullDACL();
            continue;
        }
        const bool isProtected = isGiven && given->Control() & part.isProtected;
        SecACL list;
        if (own) AddGiven(list, *own, isProtected, owners);
        if (!own || (isAsked && !isProtected)) AddInherited(list, above, owners);
        if (!own && list.IsEmpty()) {
            if (part.present != SE_DACL_PRESENT || !creator || !creator->defaultList) continue;
            AddDefault(list, *creator->defaultList, owners);
        }
        (result.*part.set)(std::move(list), false);
        result.SetControl(part.isProtected | part.inherited, isProtected ? part.isProtected
                                                             : isAsked   ? part.inherited
                                                                         : WORD{0});
    }
    return result;
}

SecDesc SecInheritance::Renewed(const SecDesc& object, const SecDesc& parent, bool renewSACL) const {
    SecDesc result(object);
    const NewOwners owners{object.Owner(), object.Group()};
    for (const ListPart& part : {Dacl, Sacl}) {
        if (part.present == SE_SACL_PRESENT && !renewSACL) continue;
        const SecACL* const own = (object.*part.list)();
        if (object.Control() & part.isProtected || (object.Control() & part.present && !own)) continue;
        SecACL list;
        if (own)
            for (const SecACE& entry : *own)
                if (!entry.IsInherited()) list.Add(entry);
        AddInherited(list, (parent.*part.list)(), owners);
        (result.*part.set)(std::move(list), false);
        result.SetControl(part.inherited, part.inherited);
    }
    return result;
}

}  // namespace Quellan::Sarvek
