// Security descriptors.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecACL.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <compare>
#include <optional>

namespace Quellan::Sarvek {

// What an object is protected by: its owner, its group, the list that says who may do what (DACL), and the
// one that says what is written down (SACL). A value, the counterpart of the platform's SECURITY_DESCRIPTOR.
//
// Each of the lists may be missing, which says nothing: a new object then gets what it gets without a
// descriptor. A DACL may also be null, which allows everybody everything; an empty one allows nobody
// anything. The marks for defaulted parts and protected lists are kept; they count in comparisons.
//
// Failures: exhausted memory throws 14 (ERROR_OUTOFMEMORY); the descriptor is unchanged then. The rules for
// threads are those of `SecID`.
class TQLIB_API SecDesc {
  public:
    // Without any part.
    SecDesc() noexcept;
    // A copy of the platform's descriptor at that address, in either form. Throws 1338
    // (ERROR_INVALID_SECURITY_DESCR) for null and what is none, 1337 (ERROR_INVALID_SID), and as `SecACL`
    // does.
    explicit SecDesc(const void* descriptor);
    SecDesc(const SecDesc&);
    SecDesc(SecDesc&&) noexcept;
    SecDesc& operator=(const SecDesc&);
    SecDesc& operator=(SecDesc&&) noexcept;
    virtual ~SecDesc();

    // Null identifiers where there is none.
    [[nodiscard]] const SecID& Owner() const noexcept { return m_owner; }
    [[nodiscard]] const SecID& Group() const noexcept { return m_group; }
    SecDesc& SetOwner(SecID owner, bool defaulted = false) noexcept;
    SecDesc& SetGroup(SecID group, bool defaulted = false) noexcept;

    [[nodiscard]] bool HasDACL() const noexcept;
    // Null where there is none, and for the null list.
    [[nodiscard]] const SecACL* DACL() const noexcept { return m_dacl ? &*m_dacl : nullptr; }
    SecDesc& SetDACL(SecACL list, bool defaulted = false) noexcept;
    SecDesc& SetNullDACL(bool defaulted = false) noexcept;
    SecDesc& RemoveDACL() noexcept;
    // Whether entries of the object above stay away from it.
    [[nodiscard]] bool IsDACLProtected() const noexcept;
    SecDesc& ProtectDACL(bool isProtected = true) noexcept;

    [[nodiscard]] const SecACL* SACL() const noexcept { return m_sacl ? &*m_sacl : nullptr; }
    SecDesc& SetSACL(SecACL list, bool defaulted = false) noexcept;
    SecDesc& RemoveSACL() noexcept;

    // The platform's marks (SE_DACL_PRESENT and its like), without the one for a block in one piece.
    [[nodiscard]] WORD Control() const noexcept { return m_control; }

    // The platform's block, in one piece (self-relative). Throws as `SecACL::Block`.
    [[nodiscard]] Corvel::BYTEBuf Block() const;

    friend bool operator==(const SecDesc& left, const SecDesc& right) noexcept = default;
    // With the platform's descriptor at that address; null and what is none equal no descriptor.
    friend TQLIB_API bool operator==(const SecDesc& left, const void* right);

  private:
    void Mark(WORD mark, bool isSet) noexcept;

    SecID m_owner;
    SecID m_group;
    std::optional<SecACL> m_dacl;
    std::optional<SecACL> m_sacl;
    WORD m_control = 0;
};

}  // namespace Quellan::Sarvek
