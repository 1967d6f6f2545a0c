// Entries of access-control lists.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecID.h"

#include <compare>

namespace Quellan::Sarvek {

// One entry: whom it concerns, which rights, and what it does with them. A value, the counterpart of the
// platform's ACCESS_ALLOWED_ACE and its like, with which it can be compared. Ordered by kind, flags, rights
// and identifier.
//
// Rights and flags are the platform's, passed as numbers (FILE_GENERIC_READ, OBJECT_INHERIT_ACE). The rules
// for threads are those of `SecID`.
class TQLIB_API SecACE {
  public:
    // The kinds that consist of rights and an identifier; the values are the platform's.
    enum class Kind : BYTE { Allow = 0, Deny = 1, Audit = 2, Label = 0x11 };

    // Allows nobody anything.
    SecACE() noexcept = default;
    SecACE(Kind kind, SecID id, DWORD rights, BYTE flags = 0) noexcept
        : m_id(std::move(id)), m_rights(rights), m_kind(kind), m_flags(flags) {}
    // A copy of the platform's entry. Throws 1336 (ERROR_INVALID_ACL) for what is none, 50
    // (ERROR_NOT_SUPPORTED) for a kind with other parts.
    explicit SecACE(const ACE_HEADER& entry);
    SecACE(const SecACE&) = default;
    SecACE(SecACE&&) noexcept = default;
    SecACE& operator=(const SecACE&) = default;
    SecACE& operator=(SecACE&&) noexcept = default;
    virtual ~SecACE();

    [[nodiscard]] static SecACE Allow(SecID id, DWORD rights, BYTE flags = 0) noexcept {
        return SecACE(Kind::Allow, std::move(id), rights, flags);
    }
    [[nodiscard]] static SecACE Deny(SecID id, DWORD rights, BYTE flags = 0) noexcept {
        return SecACE(Kind::Deny, std::move(id), rights, flags);
    }
    // Has the system write down when rights are used, refused or both.
    [[nodiscard]] static SecACE Audit(SecID id, DWORD rights, bool successes, bool failures,
                                      BYTE flags = 0) noexcept;

    [[nodiscard]] Kind GetKind() const noexcept { return m_kind; }
    [[nodiscard]] const SecID& SID() const noexcept { return m_id; }
    [[nodiscard]] DWORD Rights() const noexcept { return m_rights; }
    [[nodiscard]] BYTE Flags() const noexcept { return m_flags; }
    // Whether it came from the object above.
    [[nodiscard]] bool IsInherited() const noexcept;

    friend bool operator==(const SecACE& left, const SecACE& right) noexcept { return (left <=> right) == 0; }
    friend TQLIB_API std::strong_ordering operator<=>(const SecACE& left, const SecACE& right) noexcept;
    // With an entry of a list, which must be a whole one. One of another kind equals none and has no place in
    // the order.
    friend TQLIB_API bool operator==(const SecACE& left, const ACE_HEADER& right) noexcept;
    friend TQLIB_API std::partial_ordering operator<=>(const SecACE& left, const ACE_HEADER& right) noexcept;

  private:
    SecID m_id;
    DWORD m_rights = 0;
    Kind m_kind = Kind::Allow;
    BYTE m_flags = 0;
};

}  // namespace Quellan::Sarvek

template <>
struct std::hash<Quellan::Sarvek::SecACE> {
    std::size_t operator()(const Quellan::Sarvek::SecACE& entry) const noexcept {
        const std::size_t id = std::hash<Quellan::Sarvek::SecID>{}(entry.SID());
        return (id * 31 + entry.Rights()) * 31 +
               (static_cast<std::size_t>(entry.GetKind()) << 8 | entry.Flags());
    }
};
