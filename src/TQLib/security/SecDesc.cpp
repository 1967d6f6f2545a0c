#include "TQLib/security/SecDesc.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/ControlMarks.h"
#include "TQLib/security/internal/EntryParts.h"

#include <cstring>
#include <new>
#include <utility>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQSysException;

namespace {

// Where the parts of the platform's descriptor lie; null ones are missing.
struct Parts {
    WORD control = 0;
    BYTE resourceControl = 0;
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
        return {head.Control,
                head.Sbz1,
                at(head.Owner),
                at(head.Group),
                static_cast<const ACL*>(at(head.Sacl)),
                static_cast<const ACL*>(at(head.Dacl))};
    }
    SECURITY_DESCRIPTOR whole;
    std::memcpy(&whole, descriptor, sizeof whole);
    return {whole.Control, whole.Sbz1, whole.Owner, whole.Group, whole.Sacl, whole.Dacl};
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
    m_resourceControl = parts.resourceControl;
}

SecDesc SecDesc::FromBytes(const void* bytes, std::size_t size) {
    constexpr const wchar_t* Where = L"SecDesc::FromBytes";
    const Bytes block(static_cast<const BYTE*>(bytes), size);
    SECURITY_DESCRIPTOR_RELATIVE head;
    if (size < sizeof head) throw TQSysException(ERROR_INVALID_SECURITY_DESCR, Where);
    std::memcpy(&head, bytes, sizeof head);
    if (head.Revision != SECURITY_DESCRIPTOR_REVISION || !(head.Control & SE_SELF_RELATIVE))
        throw TQSysException(ERROR_INVALID_SECURITY_DESCR, Where);
    // What lies at an offset; nothing for 0.
    const auto at = [&](DWORD offset) -> Bytes {
        if (offset == 0) return {};
        if (offset < sizeof head || offset >= size) throw TQSysException(ERROR_INVALID_SECURITY_DESCR, Where);
        return block.subspan(offset);
    };
    const auto identifier = [&](DWORD offset) {
        const Bytes found = at(offset);
        const Bytes id = ReadIdentifier(found);
        if (id.empty() != found.empty()) throw TQSysException(ERROR_INVALID_SID, Where);
        return SecID(id.empty() ? nullptr : static_cast<const void*>(id.data()));
    };
    const auto list = [&](WORD present, DWORD offset, std::optional<SecACL>& target) {
        if (!(head.Control & present) || offset == 0) return;
        const Bytes found = at(offset);
        target.emplace(SecACL::FromBytes(found.data(), found.size()));
    };
    SecDesc descriptor;
    descriptor.m_owner = identifier(head.Owner);
    descriptor.m_group = identifier(head.Group);
    list(SE_SACL_PRESENT, head.Sacl, descriptor.m_sacl);
    list(SE_DACL_PRESENT, head.Dacl, descriptor.m_dacl);
    descriptor.m_control = static_cast<WORD>(head.Control & ~SE_SELF_RELATIVE);
    descriptor.m_resourceControl = head.Sbz1;
    return descriptor;
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

SecDesc& SecDesc::SetControl(WORD which, WORD marks) {
    constexpr WORD Settable =
        DaclAsked | SaclAsked | DaclInherited | SaclInherited | SE_DACL_PROTECTED | SE_SACL_PROTECTED;
    if ((which | marks) & ~Settable)
        Corvel::TQStdExceptions::ThrowParameterInvalidError(L"SecDesc::SetControl");
    m_control = static_cast<WORD>((m_control & ~which) | (marks & which));
    return *this;
}

BYTEBuf SecDesc::Block() const {
    BYTEBuf block(sizeof(SECURITY_DESCRIPTOR_RELATIVE));
    SECURITY_DESCRIPTOR_RELATIVE head{};
    head.Revision = SECURITY_DESCRIPTOR_REVISION;
    head.Control = static_cast<WORD>(m_control | SE_SELF_RELATIVE);
    head.Sbz1 = m_resourceControl;
    head.Sacl = AppendList(block, SACL());
    head.Dacl = AppendList(block, DACL());
    head.Owner = AppendSid(block, m_owner);
    head.Group = AppendSid(block, m_group);
    std::memcpy(block.Data(), &head, sizeof head);
    return block;
}

bool operator==(const SecDesc& left, const void* right) {
    return IsDescriptor(right) && left == SecDesc(right);
}

SecAbsoluteDesc::SecAbsoluteDesc(const SecDesc& descriptor) : m_parts(descriptor.Block()) {
    static_assert(sizeof m_head == sizeof(SECURITY_DESCRIPTOR));
    SECURITY_DESCRIPTOR_RELATIVE offsets;
    std::memcpy(&offsets, m_parts.Data(), sizeof offsets);
    const auto at = [&](DWORD offset) -> BYTE* { return offset ? m_parts.Data() + offset : nullptr; };
    auto* const head = new (m_head) SECURITY_DESCRIPTOR{};
    head->Revision = offsets.Revision;
    head->Sbz1 = offsets.Sbz1;
    head->Control = static_cast<WORD>(offsets.Control & ~SE_SELF_RELATIVE);
    head->Owner = at(offsets.Owner);
    head->Group = at(offsets.Group);
    head->Sacl = reinterpret_cast<ACL*>(at(offsets.Sacl));
    head->Dacl = reinterpret_cast<ACL*>(at(offsets.Dacl));
}

SecAbsoluteDesc::~SecAbsoluteDesc() = default;

void SecDesc::Mark(WORD mark, bool isSet) noexcept {
    m_control = static_cast<WORD>(isSet ? m_control | mark : m_control & ~mark);
}

}  // namespace Quellan::Sarvek
