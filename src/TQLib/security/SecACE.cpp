#include "TQLib/security/SecACE.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/internal/EntryParts.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <tuple>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQStdExceptions;
using Corvel::TQSysException;

namespace {

using Kind = SecACE::Kind;

constexpr std::size_t HeadSize = sizeof(ACE_HEADER) + sizeof(DWORD);  // with the rights
constexpr std::size_t TypeSize = sizeof(SecObjectType);
constexpr std::size_t Unit = sizeof(DWORD);  // which the sizes of entries are multiples of
constexpr DWORD HasObjectType = 1;
constexpr DWORD HasInheritedType = 2;

Bytes BytesOf(const std::optional<SecObjectType>& type) noexcept {
    return type ? Bytes(*type) : Bytes();
}

Bytes BytesOf(const SecID& id) noexcept {
    return {static_cast<const BYTE*>(id.Address()), id.Length()};
}

EntryParts PartsOf(const SecACE& entry) noexcept {
    return {.kind = static_cast<BYTE>(entry.GetKind()),
            .flags = entry.Flags(),
            .rights = entry.Rights(),
            .objectType = BytesOf(entry.ObjectType()),
            .inheritedType = BytesOf(entry.InheritedObjectType()),
            .id = BytesOf(entry.SID()),
            .data = Bytes(entry.Data().Data(), entry.Data().Size()),
            .size = entry.Size()};
}

// Shorter ones come first, as with identifiers.
std::strong_ordering Order(Bytes left, Bytes right) noexcept {
    const auto order = left.size() <=> right.size();
    if (order != 0 || left.empty()) return order;
    return std::memcmp(left.data(), right.data(), left.size()) <=> 0;
}

std::strong_ordering Order(const EntryParts& left, const EntryParts& right) noexcept {
    std::strong_ordering order =
        std::tie(left.kind, left.flags, left.rights) <=> std::tie(right.kind, right.flags, right.rights);
    for (const auto part :
         {&EntryParts::objectType, &EntryParts::inheritedType, &EntryParts::id, &EntryParts::data})
        if (order == 0) order = Order(left.*part, right.*part);
    return order;
}

// Of the platform's entry, whose size is believed.
std::optional<EntryParts> PartsOf(const ACE_HEADER& entry) noexcept {
    return ReadEntry({reinterpret_cast<const BYTE*>(&entry), entry.AceSize});
}

EntryParts CheckedParts(const ACE_HEADER& entry) {
    if (const auto parts = PartsOf(entry)) return *parts;
    throw TQSysException(ERROR_INVALID_ACL, L"SecACE::SecACE");
}

std::optional<SecObjectType> TypeOf(Bytes bytes) noexcept {
    if (bytes.empty()) return {};
    SecObjectType type;
    std::ranges::copy(bytes, type.begin());
    return type;
}

void Append(BYTEBuf& block, const auto& value) {
    block.Append(reinterpret_cast<const BYTE*>(&value), sizeof value);
}

void Append(BYTEBuf& block, Bytes bytes) {
    block.Append(bytes.data(), bytes.size());
}

}  // namespace

bool AreSame(const SecACE& entry, const EntryParts& parts) noexcept {
    return Order(PartsOf(entry), parts) == 0;
}

Kind KindWithoutTypes(Kind kind) noexcept {
    switch (kind) {
        case Kind::AllowObject:
            return Kind::Allow;
        case Kind::DenyObject:
            return Kind::Deny;
        case Kind::AuditObject:
            return Kind::Audit;
        case Kind::AlarmObject:
            return Kind::Alarm;
        case Kind::AllowCallbackObject:
            return Kind::AllowCallback;
        case Kind::DenyCallbackObject:
            return Kind::DenyCallback;
        case Kind::AuditCallbackObject:
            return Kind::AuditCallback;
        case Kind::AlarmCallbackObject:
            return Kind::AlarmCallback;
        default:
            return kind;
    }
}

bool SecACE::HasObjectTypes(Kind kind) noexcept {
    return Platform::HasObjectTypes(static_cast<BYTE>(kind));
}

bool SecACE::IsOpaque(Kind kind) noexcept {
    return Platform::IsOpaqueKind(static_cast<BYTE>(kind));
}

SecACE::SecACE(const ACE_HEADER& entry) : SecACE(CheckedParts(entry)) {}

SecACE::SecACE(const EntryParts& parts)
    : m_id(parts.id.empty() ? nullptr : static_cast<const void*>(parts.id.data())),
      m_data(parts.data.data(), parts.data.size()),
      m_objectType(TypeOf(parts.objectType)),
      m_inheritedType(TypeOf(parts.inheritedType)),
      m_rights(parts.rights),
      m_kind(static_cast<Kind>(parts.kind)),
      m_flags(parts.flags) {}

SecACE::~SecACE() = default;

SecACE SecACE::Audit(SecID id, DWORD rights, bool successes, bool failures, BYTE flags) noexcept {
    const int marks = (successes ? SUCCESSFUL_ACCESS_ACE_FLAG : 0) | (failures ? FAILED_ACCESS_ACE_FLAG : 0);
    return SecACE(Kind::Audit, std::move(id), rights, static_cast<BYTE>(flags | marks));
}

SecACE SecACE::ForObjects(const std::optional<SecObjectType>& type,
                          const std::optional<SecObjectType>& inheritedType) const {
    if (!HasObjectTypes(m_kind)) TQStdExceptions::ThrowParameterInvalidError(L"SecACE::ForObjects");
    SecACE entry(*this);
    entry.m_objectType = type;
    entry.m_inheritedType = inheritedType;
    return entry;
}

SecACE SecACE::WithData(const void* bytes, std::size_t size) const {
    SecACE entry(*this);
    entry.m_data.Assign(static_cast<const BYTE*>(bytes), size);
    entry.m_data.Resize((size + Unit - 1) / Unit * Unit);
    return entry;
}

SecACE SecACE::WithRights(DWORD rights) const {
    SecACE entry(*this);
    entry.m_rights = rights;
    return entry;
}

SecACE SecACE::WithFlags(BYTE flags) const {
    SecACE entry(*this);
    entry.m_flags = flags;
    return entry;
}

bool SecACE::IsInherited() const noexcept {
    return m_flags & INHERITED_ACE;
}

bool SecACE::IsInheritOnly() const noexcept {
    return m_flags & INHERIT_ONLY_ACE;
}

bool SecACE::IsAllowing() const noexcept {
    return m_kind == Kind::Allow || m_kind == Kind::AllowObject || m_kind == Kind::AllowCallback ||
           m_kind == Kind::AllowCallbackObject || m_kind == Kind::AllowCompound;
}

bool SecACE::IsDenying() const noexcept {
    return Platform::IsDenyingKind(static_cast<BYTE>(m_kind));
}

std::size_t SecACE::Size() const noexcept {
    if (IsOpaque(m_kind)) return sizeof(ACE_HEADER) + m_data.Size();
    const std::size_t types = (m_objectType ? TypeSize : 0) + (m_inheritedType ? TypeSize : 0);
    return HeadSize + (HasObjectTypes(m_kind) ? sizeof(DWORD) + types : 0) + m_id.Length() + m_data.Size();
}

BYTEBuf SecACE::Block() const {
    BYTEBuf block;
    AppendTo(block);
    return block;
}

void SecACE::AppendTo(BYTEBuf& block) const {
    constexpr const wchar_t* Where = L"SecACE::Block";
    if (m_id.IsNull() != IsOpaque(m_kind)) TQStdExceptions::ThrowParameterInvalidError(Where);
    const std::size_t size = Size();
    if (size > std::numeric_limits<WORD>::max()) throw TQSysException(ERROR_ALLOTTED_SPACE_EXCEEDED, Where);
    ACE_HEADER head{};
    head.AceType = static_cast<BYTE>(m_kind);
    head.AceFlags = m_flags;
    head.AceSize = static_cast<WORD>(size);
    block.Reserve(block.Size() + size);
    Append(block, head);
    if (!IsOpaque(m_kind)) Append(block, m_rights);
    if (HasObjectTypes(m_kind)) {
        const DWORD given = (m_objectType ? HasObjectType : 0) | (m_inheritedType ? HasInheritedType : 0);
        Append(block, given);
        Append(block, BytesOf(m_objectType));
        Append(block, BytesOf(m_inheritedType));
    }
    Append(block, BytesOf(m_id));
    block.Append(m_data);
}

std::strong_ordering operator<=>(const SecACE& left, const SecACE& right) noexcept {
    return Order(PartsOf(left), PartsOf(right));
}

bool operator==(const SecACE& left, const ACE_HEADER& right) noexcept {
    return (left <=> right) == 0;
}

std::partial_ordering operator<=>(const SecACE& left, const ACE_HEADER& right) noexcept {
    const auto parts = PartsOf(right);
    if (!parts) return std::partial_ordering::unordered;
    return Order(PartsOf(left), *parts);
}

}  // namespace Quellan::Sarvek
