#include "TQLib/security/SecAccess.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/AccessRules.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <utility>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Platform::AccessAnswer;
using Platform::AccessCode;
using Platform::AccessNode;
using Platform::ByteView;
using Platform::SubjectId;

namespace {

constexpr const wchar_t* Where = L"SecAccess::Check";

// Identifiers, and where they lie.
struct Identifiers {
    Identifiers() = default;
    explicit Identifiers(SecIDAttrArray from) : ids(std::move(from)) {
        for (const SecIDAttr& id : ids)
            if (!id.SID().IsNull()) views.push_back({id.SID().Address(), id.Attributes()});
    }

    SecIDAttrArray ids;
    std::vector<SubjectId> views;
};

std::vector<ByteView> ViewsOf(std::span<const BYTEBuf> blocks) {
    std::vector<ByteView> views;
    for (const BYTEBuf& block : blocks)
        views.emplace_back(block.Data(), block.Size());
    return views;
}

struct Attributes {
    Attributes() = default;
    explicit Attributes(std::vector<BYTEBuf> from) : blocks(std::move(from)), views(ViewsOf(blocks)) {}

    std::vector<BYTEBuf> blocks;
    std::vector<ByteView> views;
};

}  // namespace

struct SecSubject::Parts {
    SecIDAttr user;
    Identifiers groups;
    Identifiers restricting;
    Identifiers deviceGroups;
    Attributes userAttributes;
    Attributes deviceAttributes;
    // Its views show the parts above.
    Platform::AccessSubject subject;
};

SecSubject::SecSubject(SecIDAttr user, SecIDAttrArray groups)
    : m_parts(Corvel::Translated(L"SecSubject::SecSubject", [&] {
          auto parts = std::make_unique<Parts>();
          parts->user = std::move(user);
          parts->groups = Identifiers(std::move(groups));
          const SecIDAttr& own = parts->user;
          parts->subject.user = {own.SID().IsNull() ? nullptr : own.SID().Address(), own.Attributes()};
          parts->subject.groups = parts->groups.views;
          return parts;
      })) {}

SecSubject::SecSubject(SecSubject&&) noexcept = default;
SecSubject& SecSubject::operator=(SecSubject&&) noexcept = default;
SecSubject::~SecSubject() = default;

SecSubject& SecSubject::Restrict(const SecIDArray& ids, bool forWritingOnly) {
    m_parts->restricting = Corvel::Translated(L"SecSubject::Restrict", [&] {
        SecIDAttrArray restricting;
        for (const SecID& id : ids)
            restricting.Add(SecIDAttr(id));
        return Identifiers(std::move(restricting));
    });
    m_parts->subject.restricting = m_parts->restricting.views;
    m_parts->subject.isWriteRestricted = forWritingOnly;
    return *this;
}

SecSubject& SecSubject::SetDeviceGroups(SecIDAttrArray groups) {
    m_parts->deviceGroups =
        Corvel::Translated(L"SecSubject::SetDeviceGroups", [&] { return Identifiers(std::move(groups)); });
    m_parts->subject.deviceGroups = m_parts->deviceGroups.views;
    return *this;
}

SecSubject& SecSubject::SetUserAttributes(std::vector<BYTEBuf> attributes) {
    m_parts->userAttributes = Corvel::Translated(L"SecSubject::SetUserAttributes",
                                                 [&] { return Attributes(std::move(attributes)); });
    m_parts->subject.userAttributes = m_parts->userAttributes.views;
    return *this;
}

SecSubject& SecSubject::SetDeviceAttributes(std::vector<BYTEBuf> attributes) {
    m_parts->deviceAttributes = Corvel::Translated(L"SecSubject::SetDeviceAttributes",
                                                   [&] { return Attributes(std::move(attributes)); });
    m_parts->subject.deviceAttributes = m_parts->deviceAttributes.views;
    return *this;
}

SecSubject& SecSubject::SetPrivileges(const SecPrivilegeSet& enabled) {
    DWORD privileges = 0;
    if (enabled.Contains(L"SeSecurityPrivilege")) privileges |= Platform::SecurityPrivilege;
    if (enabled.Contains(L"SeTakeOwnershipPrivilege")) privileges |= Platform::TakeOwnershipPrivilege;
    if (enabled.Contains(L"SeRelabelPrivilege")) privileges |= Platform::RelabelPrivilege;
    m_parts->subject.privileges = privileges;
    return *this;
}

SecSubject& SecSubject::SetLevel(DWORD rid, bool isHeld) noexcept {
    m_parts->subject.level = rid;
    m_parts->subject.isHeldByLevels = isHeld;
    return *this;
}

namespace {

SecAccess::Answer AnswerOf(const AccessAnswer& answer) {
    switch (answer.code) {
        case AccessCode::Granted:
        case AccessCode::Denied:
        case AccessCode::PrivilegeMissing:
            break;
        case AccessCode::InvalidTree:
            Corvel::TQStdExceptions::ThrowParameterInvalidError(Where);
        default:
            throw Corvel::TQSysException(static_cast<DWORD>(answer.code), Where);
    }
    return {.isGranted = answer.code == AccessCode::Granted,
            .granted = answer.granted,
            .code = static_cast<DWORD>(answer.code),
            .usedSecurityPrivilege = (answer.usedPrivileges & Platform::SecurityPrivilege) != 0,
            .usedTakeOwnershipPrivilege = (answer.usedPrivileges & Platform::TakeOwnershipPrivilege) != 0};
}

}  // namespace

SecAccess::SecAccess(const SecDesc& descriptor, const SecGenericMap& map)
    : m_block(descriptor.Block()), m_map(map) {}

SecAccess::~SecAccess() = default;

SecAccess::Answer SecAccess::Check(const SecSubject& subject, DWORD wanted,
                                   const SecCircumstances& circumstances) const {
    return Ask(subject, wanted, {}, circumstances);
}

SecAccess::Answer SecAccess::Check(const SecSubject& subject, DWORD wanted, std::span<Node> nodes,
                                   const SecCircumstances& circumstances) const {
    return Corvel::Translated(Where, [&] {
        if (nodes.empty()) Corvel::TQStdExceptions::ThrowParameterInvalidError(Where);
        std::vector<AccessNode> tree;
        for (const Node& node : nodes)
            tree.push_back({.level = node.level, .type = node.type.data()});
        const Answer answer = Ask(subject, wanted, tree, circumstances);
        for (std::size_t i = 0; i < nodes.size(); ++i)
            nodes[i].granted = tree[i].granted;
        return answer;
    });
}

SecAccess::Answer SecAccess::Ask(const SecSubject& subject, DWORD wanted,
                                 std::span<Platform::AccessNode> tree,
                                 const SecCircumstances& circumstances) const {
    // Attributes are rare: without them nothing is allocated.
    const std::vector<ByteView> attributes =
        Corvel::Translated(Where, [&] { return ViewsOf(circumstances.attributes); });
    const SecID* const self = circumstances.self;
    return AnswerOf(Platform::CheckAccess(subject.m_parts->subject,
                                          {.descriptor = {m_block.Data(), m_block.Size()},
                                           .wanted = wanted,
                                           .rights = m_map.m_rights,
                                           .self = self && !self->IsNull() ? self->Address() : nullptr,
                                           .localAttributes = attributes,
                                           .tree = tree}));
}

DWORD SecAccess::RightsOf(const SecSubject& subject) const {
    return Check(subject, MAXIMUM_ALLOWED).granted;
}

DWORD SecAccess::RightsOf(const SecID& id) const {
    return RightsOf(SecSubject(SecIDAttr(id)));
}

}  // namespace Quellan::Sarvek
