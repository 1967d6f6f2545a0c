#include "TQLib/security/SecDesc.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"

#include <cstring>
#include <utility>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQSysException;

namespace {

// Where the parts of the platform's descriptor lie; null ones are missing.
struct Parts {
    WORD control = 0;
    const void* owner = nullptr;
    const void* group = nullptr;
    const ACL* sacl = nullptr;
    const ACL* dacl = nullptr;
};

bool IsDescriptor(const void* descriptor) noexcept {
    return descriptor && *static_cast<const BYTE*>(descriptor) == SECURITY_DESCRIPTOR_REVISION;
}

Parts PartsOf(const void* descriptor) {
    if (!IsDescriptor(descriptor)) throw TQSysException(ERROR_INVALID_SECURITY_DESCR, L"SecDesc::SecDesc");
    SECURITY_DESCRIPTOR_RELATIVE head;
    std::memcpy(&head, descriptor, sizeof head);
    if (head.Control & SE_SELF_RELATIVE) {
        const auto at = [&](DWORD offset) -> const void* {
            return offset ? static_cast<const BYTE*>(descriptor) + offset : nullptr;
        };
        return {head.Control, at(head.Owner), at(head.Group), static_cast<const ACL*>(at(head.Sacl)),
                static_cast<const ACL*>(at(head.Dacl))};
    }
    SECURITY_DESCRIPTOR whole;
    std::memcpy(&whole, descriptor, sizeof whole);
    return {whole.Control, whole.Owner, whole.Group, whole.Sacl, whole.Dacl};
}

// Where the next part of a block will lie.
DWORD End(const BYTEBuf& block) noexcept {
    return static_cast<DWORD>(block.Size());
}

DWORD AppendSid(BYTEBuf& block, const SecID& id) {
    if (id.IsNull()) return 0;
    const DWORD at = End(block);
    block.Append(static_cast<const BYTE*>(id.Address()), id.Length());
    return at;
}

DWORD AppendList(BYTEBuf& block, const SecACL* list) {
    if (!list) return 0;
    const DWORD at = End(block);
    const BYTEBuf bytes = list->Block();
    block.Append(bytes.Data(), bytes.Size());
    return at;
}

}  // namespace

SecDesc::SecDesc() noexcept = default;
SecDesc::SecDesc(const SecDesc&) = default;
SecDesc::SecDesc(SecDesc&&) noexcept = default;
SecDesc& SecDesc::operator=(SecDesc&&) noexcept = default;
SecDesc::~SecDesc() = default;

SecDesc& SecDesc::operator=(const SecDesc& other) {
    // By a copy: one of the parts may fail.
    return *this = SecDesc(other);
}

SecDesc::SecDesc(const void* descriptor) {
    const Parts parts = PartsOf(descriptor);
    m_owner = SecID(parts.owner);
    m_group = SecID(parts.group);
    if (parts.control & SE_DACL_PRESENT && parts.dacl) m_dacl.emplace(*parts.dacl);
    if (parts.control & SE_SACL_PRESENT && parts.sacl) m_sacl.emplace(*parts.sacl);
    m_control = static_cast<WORD>(parts.control & ~SE_SELF_RELATIVE);
}

SecDesc& SecDesc::SetOwner(SecID owner, bool defaulted) noexcept {
    m_owner = std::move(owner);
    Mark(SE_OWNER_DEFAULTED, defaulted);
    return *this;
}

SecDesc& SecDesc::SetGroup(SecID group, bool defaulted) noexcept {
    m_group = std::move(group);
    Mark(SE_GROUP_DEFAULTED, defaulted);
    return *this;
}

bool SecDesc::HasDACL() const noexcept {
    return m_control & SE_DACL_PRESENT;
}

SecDesc& SecDesc::SetDACL(SecACL list, bool defaulted) noexcept {
    SetNullDACL(defaulted).m_dacl.emplace(std::move(list));
    return *this;
}

SecDesc& SecDesc::SetNullDACL(bool defaulted) noexcept {
    m_dacl.reset();
    Mark(SE_DACL_PRESENT, true);
    Mark(SE_DACL_DEFAULTED, defaulted);
    return *this;
}

SecDesc& SecDesc::RemoveDACL() noexcept {
    m_dacl.reset();
    Mark(SE_DACL_PRESENT | SE_DACL_DEFAULTED, false);
    return *this;
}

bool SecDesc::IsDACLProtected() const noexcept {
    return m_control & SE_DACL_PROTECTED;
}

SecDesc& SecDesc::ProtectDACL(bool isProtected) noexcept {
    Mark(SE_DACL_PROTECTED, isProtected);
    return *this;
}

SecDesc& SecDesc::SetSACL(SecACL list, bool defaulted) noexcept {
    m_sacl.emplace(std::move(list));
    Mark(SE_SACL_PRESENT, true);
    Mark(SE_SACL_DEFAULTED, defaulted);
    return *this;
}

SecDesc& SecDesc::RemoveSACL() noexcept {
    m_sacl.reset();
    Mark(SE_SACL_PRESENT | SE_SACL_DEFAULTED, false);
    return *this;
}

BYTEBuf SecDesc::Block() const {
    BYTEBuf block(sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    SECURITY_DESCRIPTOR_RELATIVE head{};
    head.Revision = SECURITY_DESCRIPTOR_REVISION;
    head.Control = static_cast<WORD>(m_control | SE_SELF_RELATIVE);
    head.Owner = AppendSid(block, m_owner);
    head.Group = AppendSid(block, m_group);
    head.Sacl = AppendList(block, SACL());
    head.Dacl = AppendList(block, DACL());
    std::memcpy(block.Data(), &head, sizeof head);
    return block;
}

bool operator==(const SecDesc& left, const void* right) {
    return IsDescriptor(right) && left == SecDesc(right);
}

void SecDesc::Mark(WORD mark, bool isSet) noexcept {
    m_control = static_cast<WORD>(isSet ? m_control | mark : m_control & ~mark);
}

}  // namespace Quellan::Sarvek
