#include "TQLib/security/SecACE.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"

#include <cstddef>
#include <cstring>
#include <tuple>

namespace Quellan::Sarvek {

namespace {

constexpr std::size_t HeadSize = offsetof(ACCESS_ALLOWED_ACE, SidStart);

bool IsSimple(BYTE kind) noexcept {
    return kind <= SYSTEM_AUDIT_ACE_TYPE || kind == SYSTEM_MANDATORY_LABEL_ACE_TYPE;
}

const BYTE* BytesOf(const ACE_HEADER& entry) noexcept {
    return reinterpret_cast<const BYTE*>(&entry);
}

DWORD RightsOf(const ACE_HEADER& entry) noexcept {
    DWORD rights;
    std::memcpy(&rights, BytesOf(entry) + offsetof(ACCESS_ALLOWED_ACE, Mask), sizeof rights);
    return rights;
}

const void* SidOf(const ACE_HEADER& entry) noexcept {
    return BytesOf(entry) + HeadSize;
}

const ACE_HEADER& Checked(const ACE_HEADER& entry) {
    constexpr const wchar_t* Where = L"SecACE::SecACE";
    constexpr std::size_t LeastSid = 8;
    if (!IsSimple(entry.AceType)) throw Corvel::TQSysException(ERROR_NOT_SUPPORTED, Where);
    const BYTE* const sid = BytesOf(entry) + HeadSize;
    if (entry.AceSize < HeadSize + LeastSid || entry.AceSize < HeadSize + LeastSid + sid[1] * sizeof(DWORD))
        throw Corvel::TQSysException(ERROR_INVALID_ACL, Where);
    return entry;
}

SecID Copied(const void* sid) {
    try {
        return SecID(sid);
    } catch (const Corvel::TQSysException&) {
        throw Corvel::TQSysException(ERROR_INVALID_ACL, L"SecACE::SecACE");
    }
}

}  // namespace

SecACE::SecACE(const ACE_HEADER& entry)
    : m_id(Copied(SidOf(Checked(entry)))),
      m_rights(RightsOf(entry)),
      m_kind(static_cast<Kind>(entry.AceType)),
      m_flags(entry.AceFlags) {}

SecACE::~SecACE() = default;

SecACE SecACE::Audit(SecID id, DWORD rights, bool successes, bool failures, BYTE flags) noexcept {
    const int marks = (successes ? SUCCESSFUL_ACCESS_ACE_FLAG : 0) | (failures ? FAILED_ACCESS_ACE_FLAG : 0);
    return SecACE(Kind::Audit, std::move(id), rights, static_cast<BYTE>(flags | marks));
}

bool SecACE::IsInherited() const noexcept {
    return m_flags & INHERITED_ACE;
}

std::strong_ordering operator<=>(const SecACE& left, const SecACE& right) noexcept {
    return std::tie(left.m_kind, left.m_flags, left.m_rights, left.m_id) <=>
           std::tie(right.m_kind, right.m_flags, right.m_rights, right.m_id);
}

bool operator==(const SecACE& left, const ACE_HEADER& right) noexcept {
    return (left <=> right) == 0;
}

std::partial_ordering operator<=>(const SecACE& left, const ACE_HEADER& right) noexcept {
    if (!IsSimple(right.AceType)) return std::partial_ordering::unordered;
    const auto kind = static_cast<BYTE>(left.m_kind);
    const DWORD rights = RightsOf(right);
    const auto order =
        std::tie(kind, left.m_flags, left.m_rights) <=> std::tie(right.AceType, right.AceFlags, rights);
    return order == 0 ? left.m_id <=> SidOf(right) : order;
}

}  // namespace Quellan::Sarvek
