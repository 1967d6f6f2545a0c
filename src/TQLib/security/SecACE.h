// Entries of access-control lists.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecID.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <array>
#include <compare>
#include <cstddef>
#include <optional>

namespace Quellan::Platform {
struct EntryParts;
}

namespace Quellan::Sarvek {

// The GUID of a kind of objects or of one of their properties, as its bytes lie in memory.
using SecObjectType = std::array<BYTE, 16>;

// One entry: whom it concerns, which rights, and what it does with them. A value, the counterpart of the
// platform's ACCESS_ALLOWED_ACE and its like, with which it can be compared. Ordered by kind, flags, rights,
// object types, identifier and data.
//
// Rights and flags are the platform's, passed as numbers (FILE_GENERIC_READ, OBJECT_INHERIT_ACE).
//
// Failures: exhausted memory throws 14 (ERROR_OUTOFMEMORY); the entry is unchanged then. The rules for
// threads are those of `SecID`.
class TQLIB_API SecACE {
  public:
    // The platform's kinds and their values. A compound entry, and one of a kind that is not named here, is
    // kept byte for byte: what follows its header is its data, and it has neither identifier nor rights.
    enum class Kind : BYTE {
        Allow = 0,
        Deny = 1,
        Audit = 2,
        Alarm = 3,
        AllowCompound = 4,
        // For a kind of objects, or for one of their properties.
        AllowObject = 5,
        DenyObject = 6,
        AuditObject = 7,
        AlarmObject = 8,
        // With a condition in their data.
        AllowCallback = 9,
        DenyCallback = 0xA,
        AllowCallbackObject = 0xB,
        DenyCallbackObject = 0xC,
        AuditCallback = 0xD,
        AlarmCallback = 0xE,
        AuditCallbackObject = 0xF,
        AlarmCallbackObject = 0x10,
        // The integrity level; its rights say what is forbidden to those below.
        Label = 0x11,
        // With an attribute in its data.
        ResourceAttribute = 0x12,
        ScopedPolicy = 0x13,
        ProcessTrust = 0x14,
        AccessFilter = 0x15
    };
    // Whether entries of that kind may have object types.
    [[nodiscard]] static bool HasObjectTypes(Kind kind) noexcept;
    // Whether they are kept byte for byte.
    [[nodiscard]] static bool IsOpaque(Kind kind) noexcept;

    // Allows nobody anything.
    SecACE() noexcept = default;
    SecACE(Kind kind, SecID id, DWORD rights, BYTE flags = 0) noexcept
        : m_id(std::move(id)), m_rights(rights), m_kind(kind), m_flags(flags) {}
    // A copy of the platform's entry. Throws 1336 (ERROR_INVALID_ACL) for what is none; nothing is read
    // behind its end.
    explicit SecACE(const ACE_HEADER& entry);
    SecACE(const SecACE&) = default;
    SecACE(SecACE&&) noexcept = default;
    // By a copy: one of the parts may fail.
    SecACE& operator=(const SecACE& other) { return *this = SecACE(other); }
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
    // The same entry for a kind of objects or a property, and for objects below that are of another kind.
    // Throws 87 (ERROR_INVALID_PARAMETER) for a kind of entry that has no object types.
    [[nodiscard]] SecACE ForObjects(const std::optional<SecObjectType>& type,
                                    const std::optional<SecObjectType>& inheritedType = {}) const;
    // The same entry with other data, filled up with zeros to a multiple of 4 bytes. Throws 87 for a null
    // address of more than nothing.
    [[nodiscard]] SecACE WithData(const void* bytes, std::size_t size) const;
    // The same entry with other rights.
    [[nodiscard]] SecACE WithRights(DWORD rights) const;
    // With other flags.
    [[nodiscard]] SecACE WithFlags(BYTE flags) const;

    [[nodiscard]] Kind GetKind() const noexcept { return m_kind; }
    [[nodiscard]] const SecID& SID() const noexcept { return m_id; }
    [[nodiscard]] DWORD Rights() const noexcept { return m_rights; }
    [[nodiscard]] BYTE Flags() const noexcept { return m_flags; }
    // The kind of objects, or the property, that it is for; none where it is for all.
    [[nodiscard]] const std::optional<SecObjectType>& ObjectType() const noexcept { return m_objectType; }
    [[nodiscard]] const std::optional<SecObjectType>& InheritedObjectType() const noexcept {
        return m_inheritedType;
    }
    // What follows the identifier: a condition, an attribute, an application's own.
    [[nodiscard]] const Corvel::BYTEBuf& Data() const noexcept { return m_data; }
    // Whether it came from the object above.
    [[nodiscard]] bool IsInherited() const noexcept;
    // Whether it is for objects below alone.
    [[nodiscard]] bool IsInheritOnly() const noexcept;
    [[nodiscard]] bool IsAllowing() const noexcept;
    [[nodiscard]] bool IsDenying() const noexcept;

    // The size of the platform's block, in bytes.
    [[nodiscard]] std::size_t Size() const noexcept;
    // The platform's block. Throws 87 for an entry that should have an identifier and has none, or the other
    // way round, 1344 (ERROR_ALLOTTED_SPACE_EXCEEDED) for one of more than 65,535 bytes.
    [[nodiscard]] Corvel::BYTEBuf Block() const;
    // For people, with names of accounts: "Administrators: full control, inherited". Rights are called as
    // those of files are. Fails as `SecID::Name`.
    [[nodiscard]] Corvel::TQString Describe() const;

    friend bool operator==(const SecACE& left, const SecACE& right) noexcept { return (left <=> right) == 0; }
    friend TQLIB_API std::strong_ordering operator<=>(const SecACE& left, const SecACE& right) noexcept;
    // With an entry of a list. A damaged one equals none and has no place in the order.
    friend TQLIB_API bool operator==(const SecACE& left, const ACE_HEADER& right) noexcept;
    friend TQLIB_API std::partial_ordering operator<=>(const SecACE& left, const ACE_HEADER& right) noexcept;

  private:
    friend class SecACL;

    explicit SecACE(const Platform::EntryParts& parts);
    void AppendTo(Corvel::BYTEBuf& block) const;

    SecID m_id;
    Corvel::BYTEBuf m_data;
    std::optional<SecObjectType> m_objectType;
    std::optional<SecObjectType> m_inheritedType;
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
