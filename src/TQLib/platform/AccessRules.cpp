#include "TQLib/platform/AccessRules.h"

#include "TQLib/platform/AccessConditions.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Quellan::Platform {

namespace {

constexpr DWORD ReadControl = 0x20000;
constexpr DWORD WriteDac = 0x40000;
constexpr DWORD WriteOwner = 0x80000;
constexpr DWORD SystemSecurity = 0x01000000;
constexpr DWORD Maximum = 0x02000000;
constexpr DWORD Generic = 0xF0000000;
constexpr BYTE InheritOnly = 8;
constexpr DWORD Enabled = 4;
constexpr DWORD ForDenyingOnly = 0x10;

// Whoever owns the object, and whom the object stands for.
constexpr std::array<BYTE, 12> OwnerRights = {1, 1, 0, 0, 0, 0, 0, 3, 4, 0, 0, 0};
constexpr std::array<BYTE, 12> PrincipalSelf = {1, 1, 0, 0, 0, 0, 0, 5, 10, 0, 0, 0};

bool IsSame(const BYTE* left, const BYTE* right) noexcept {
    return NumberAt<ULONGLONG>(left) == NumberAt<ULONGLONG>(right) &&
           std::memcmp(left + SidHeadSize, right + SidHeadSize, left[1] * SidPartSize) == 0;
}

const BYTE* BytesOf(const SubjectId& id) noexcept {
    return static_cast<const BYTE*>(id.sid);
}

struct Descriptor {
    const BYTE* owner = nullptr;
    ByteView sacl;
    ByteView dacl;
    bool hasList = false;  // otherwise everybody may do everything
};

bool IsWhole(ByteView list) noexcept {
    EntryReader reader(list);
    while (reader.Next()) {
    }
    return !reader.IsDamaged();
}

AccessCode Read(ByteView block, Descriptor& descriptor) noexcept {
    constexpr std::size_t HeadSize = 20;
    constexpr std::size_t OwnerAt = 4;
    constexpr std::size_t GroupAt = 8;
    constexpr std::size_t SaclAt = 12;
    constexpr std::size_t DaclAt = 16;
    constexpr WORD DaclPresent = 4;
    constexpr WORD SaclPresent = 0x10;
    constexpr WORD SelfRelative = 0x8000;
    if (block.size() < HeadSize || block[0] != 1) return AccessCode::InvalidDescriptor;
    const auto control = NumberAt<WORD>(&block[2]);
    if (!(control & SelfRelative)) return AccessCode::InvalidDescriptor;
    bool isWhole = true;
    const auto part = [&](std::size_t at) -> ByteView {
        const auto offset = NumberAt<DWORD>(&block[at]);
        if (offset == 0) return {};
        isWhole = isWhole && offset >= HeadSize && offset < block.size();
        return isWhole ? block.subspan(offset) : ByteView();
    };
    const ByteView owner = part(OwnerAt);
    const ByteView group = part(GroupAt);
    if (control & SaclPresent) descriptor.sacl = part(SaclAt);
    if (control & DaclPresent) descriptor.dacl = part(DaclAt);
    if (!isWhole || owner.empty() || group.empty()) return AccessCode::InvalidDescriptor;
    if (ReadIdentifier(owner).empty() || ReadIdentifier(group).empty()) return AccessCode::InvalidIdentifier;
    descriptor.owner = owner.data();
    descriptor.hasList = !descriptor.dacl.empty();
    if ((descriptor.hasList && !IsWhole(descriptor.dacl)) ||
        (!descriptor.sacl.empty() && !IsWhole(descriptor.sacl)))
        return AccessCode::InvalidList;
    return AccessCode::Granted;
}

bool IsTree(std::span<const AccessNode> nodes) noexcept {
    constexpr WORD MostLevel = 4;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const WORD level = nodes[i].level;
        if (!nodes[i].type || level > MostLevel || (level == 0) != (i == 0)) return false;
        if (i > 0 && level > nodes[i - 1].level + 1) return false;
    }
    return true;
}

// What the label of the object leaves to the subject.
DWORD LeftByLabel(const AccessSubject& subject, const GenericRights& rights, ByteView sacl) noexcept {
    constexpr DWORD NoWriteUp = 1;
    constexpr DWORD NoReadUp = 2;
    constexpr DWORD NoExecuteUp = 4;
    constexpr std::array<BYTE, SidHeadSize> LevelHead = {1, 1, 0, 0, 0, 0, 0, 16};
    constexpr DWORD All = ~DWORD{0};
    if (!subject.isHeldByLevels) return All;
    DWORD level = MediumLevel;
    DWORD forbidden = NoWriteUp;
    EntryReader entries(sacl);
    while (const auto entry = entries.Next()) {
        if (entry->kind != LabelEntry || entry->flags & InheritOnly) continue;
        if (!std::ranges::equal(entry->id.first(SidHeadSize), LevelHead)) continue;
        level = NumberAt<DWORD>(&entry->id[SidHeadSize]);
        forbidden = entry->rights & (NoWriteUp | NoReadUp | NoExecuteUp);
        break;
    }
    if (subject.level >= level || forbidden == 0) return All;
    return (forbidden & NoWriteUp ? 0 : rights.write) | (forbidden & NoReadUp ? 0 : rights.read) |
           (forbidden & NoExecuteUp ? 0 : rights.execute) |
           (subject.privileges & RelabelPrivilege ? WriteOwner : 0);
}

// The check of one list by one set of identifiers. Of each right the first entry decides that allows or denies
// it.
class ListCheck {
  public:
    ListCheck(const AccessSubject& subject, const AccessQuestion& question, const Descriptor& descriptor,
              std::span<AccessNode> nodes, bool isRestricted) noexcept
        : m_subject(subject),
          m_question(question),
          m_descriptor(descriptor),
          m_nodes(nodes),
          m_isRestricted(isRestricted),
          m_isOwner(Has(descriptor.owner, false)) {}

    // Leaves in each node what is allowed there.
    void Run() noexcept {
        const DWORD implicit = m_isOwner && !HasOwnerRights() ? ReadControl | WriteDac : 0;
        for (AccessNode& node : m_nodes) {
            node.allowed = implicit;
            node.denied = 0;
        }
        EntryReader entries(m_descriptor.dacl);
        while (!IsDecided()) {
            const auto entry = entries.Next();
            if (!entry) break;
            const bool denies = IsDenyingKind(entry->kind);
            if (Counts(*entry) && IsMatched(*entry, denies) && IsMet(*entry, denies)) Apply(*entry, denies);
        }
    }

  private:
    static bool IsAllowingKind(BYTE kind) noexcept {
        return kind == AllowEntry || kind == AllowObjectEntry || kind == AllowCallbackEntry ||
               kind == AllowCallbackObjectEntry;
    }

    static bool Counts(const EntryParts& entry) noexcept {
        return !(entry.flags & InheritOnly) && (IsAllowingKind(entry.kind) || IsDenyingKind(entry.kind));
    }

    [[nodiscard]] bool Has(const BYTE* sid, bool forDenying) const noexcept {
        if (m_isRestricted)
            return std::ranges::any_of(m_subject.restricting,
                                       [&](const SubjectId& id) { return IsSame(BytesOf(id), sid); });
        return HasIdentifier(m_subject, sid, forDenying);
    }

    // An entry for whoever owns the object stands in place of what an owner may without any.
    [[nodiscard]] bool HasOwnerRights() const noexcept {
        EntryReader entries(m_descriptor.dacl);
        while (const auto entry = entries.Next())
            if (Counts(*entry) && IsSame(entry->id.data(), OwnerRights.data())) return true;
        return false;
    }

    // Whether no entry can change the answer any more. With several nodes that is not looked for.
    [[nodiscard]] bool IsDecided() const noexcept {
        return m_nodes.size() == 1 && !(m_question.wanted & Maximum) &&
               (m_question.wanted & ~(m_nodes[0].allowed | m_nodes[0].denied)) == 0;
    }

    [[nodiscard]] bool IsMatched(const EntryParts& entry, bool denies) const noexcept {
        const BYTE* const sid = entry.id.data();
        if (IsSame(sid, OwnerRights.data())) return m_isOwner;
        if (IsSame(sid, PrincipalSelf.data()))
            return m_question.self && Has(static_cast<const BYTE*>(m_question.self), denies);
        return Has(sid, denies);
    }

    // What is not known does not allow, and denies.
    [[nodiscard]] bool IsMet(const EntryParts& entry, bool denies) const noexcept {
        if (entry.kind < AllowCallbackEntry) return true;
        const Truth truth = Evaluate(entry.data, {m_subject, m_question, m_descriptor.sacl, denies});
        return truth == Truth::True || (truth == Truth::Unknown && denies);
    }

    static void Apply(AccessNode& node, DWORD rights, bool denies) noexcept {
        if (denies)
            node.denied |= rights & ~node.allowed;
        else
            node.allowed |= rights & ~node.denied;
    }

    void Apply(const EntryParts& entry, bool denies) noexcept {
        const DWORD rights =
            MapGenericRights(m_question.rights, entry.rights) & ~(SystemSecurity | Maximum | Generic);
        if (entry.objectType.empty()) {
            for (AccessNode& node : m_nodes)
                Apply(node, rights, denies);
        } else if (m_question.tree.empty()) {
            // Nobody says which kind of objects this is: it may be the one that is denied.
            if (denies) Apply(m_nodes[0], rights, denies);
        } else {
            ApplyToType(entry.objectType, rights, denies);
        }
    }

    // To the nodes of that type and all below them. What is denied a part is denied the whole.
    void ApplyToType(ByteView type, DWORD rights, bool denies) noexcept {
        for (std::size_t i = 0; i < m_nodes.size(); ++i) {
            if (std::memcmp(m_nodes[i].type, type.data(), ObjectTypeSize) != 0) continue;
            WORD level = m_nodes[i].level;
            Apply(m_nodes[i], rights, denies);
            for (std::size_t below = i + 1; below < m_nodes.size() && m_nodes[below].level > level; ++below)
                Apply(m_nodes[below], rights, denies);
            for (std::size_t above = i; denies && level > 0;)
                if (m_nodes[--above].level < level) {
                    Apply(m_nodes[above], rights, denies);
                    level = m_nodes[above].level;
                }
        }
    }

    const AccessSubject& m_subject;
    const AccessQuestion& m_question;
    const Descriptor& m_descriptor;
    std::span<AccessNode> m_nodes;
    bool m_isRestricted;
    bool m_isOwner;
};

// Leaves in each node as granted what the list allows.
void AskList(const AccessSubject& subject, const AccessQuestion& question, const Descriptor& descriptor,
             std::span<AccessNode> nodes) noexcept {
    ListCheck(subject, question, descriptor, nodes, false).Run();
    for (AccessNode& node : nodes)
        node.granted = node.allowed;
    if (subject.restricting.empty()) return;
    ListCheck(subject, question, descriptor, nodes, true).Run();
    const DWORD unrestricted = subject.isWriteRestricted ? question.rights.read | question.rights.execute : 0;
    for (AccessNode& node : nodes)
        node.granted &= node.allowed | unrestricted;
}

}  // namespace

bool HasIdentifier(std::span<const SubjectId> ids, const BYTE* sid, bool forDenying) noexcept {
    return std::ranges::any_of(ids, [&](const SubjectId& id) {
        const bool counts = id.attributes & ForDenyingOnly ? forDenying : (id.attributes & Enabled) != 0;
        return counts && IsSame(BytesOf(id), sid);
    });
}

bool HasIdentifier(const AccessSubject& subject, const BYTE* sid, bool forDenying) noexcept {
    const SubjectId user{subject.user.sid, subject.user.attributes | Enabled};
    return (user.sid && HasIdentifier(std::span(&user, 1), sid, forDenying)) ||
           HasIdentifier(subject.groups, sid, forDenying);
}

AccessAnswer CheckAccess(const AccessSubject& subject, const AccessQuestion& question) noexcept {
    AccessNode root;
    const std::span<AccessNode> nodes = question.tree.empty() ? std::span(&root, 1) : question.tree;
    for (AccessNode& node : nodes)
        node.granted = 0;
    if (question.wanted & Generic) return {.code = AccessCode::GenericRightsWanted};
    Descriptor descriptor;
    const AccessCode damage = Read(question.descriptor, descriptor);
    if (damage != AccessCode::Granted) return {.code = damage};
    if (!IsTree(question.tree)) return {.code = AccessCode::InvalidTree};

    AccessAnswer answer;
    const DWORD wanted = question.wanted & ~Maximum;
    DWORD byPrivilege = 0;
    if (wanted & SystemSecurity) {
        if (!(subject.privileges & SecurityPrivilege)) return {.code = AccessCode::PrivilegeMissing};
        byPrivilege |= SystemSecurity;
        answer.usedPrivileges |= SecurityPrivilege;
    }
    if (descriptor.hasList) {
        if (wanted & WriteOwner && subject.privileges & TakeOwnershipPrivilege) {
            byPrivilege |= WriteOwner;
            answer.usedPrivileges |= TakeOwnershipPrivilege;
        }
        AskList(subject, question, descriptor, nodes);
    } else {
        for (AccessNode& node : nodes)
            node.granted = question.wanted & Maximum ? question.rights.all | wanted : wanted;
    }

    const DWORD left = LeftByLabel(subject, question.rights, descriptor.sacl);
    for (AccessNode& node : nodes) {
        const DWORD held = (node.granted | byPrivilege) & left;
        node.granted = (wanted & ~held) != 0 ? 0 : question.wanted & Maximum ? held : wanted;
    }
    answer.granted = nodes[0].granted;
    if (answer.granted == 0) return {};
    answer.code = AccessCode::Granted;
    return answer;
}

}  // namespace Quellan::Platform
