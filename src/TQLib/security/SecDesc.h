// Security descriptors.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecACL.h"
#include "TQLib/text/memory/TQDataBuf.h"

#include <compare>
#include <cstddef>
#include <optional>

namespace Quellan::Sarvek {

// What an object is protected by: its owner, its group, the list that says who may do what (DACL), and the
// one that says what is written down (SACL). A value, the counterpart of the platform's SECURITY_DESCRIPTOR.
//
// Each of the lists may be missing, which says nothing: a new object then gets what it gets without a
// descriptor. A DACL may also be null, which allows everybody everything; an empty one allows nobody
// anything. The marks for defaulted parts, protected and inherited lists are kept; they count in comparisons.
//
// As a text (the platform's SDDL) a descriptor is written `O:owner G:group D:flags(entry)... S:flags(entry)...`
// without the blanks, each part where there is one; an entry is (kind;flags;rights;object type;inherited
// type;identifier), with a condition or an attribute behind the identifier where its kind has one.
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
    // A copy of a block in one piece (self-relative) that came from outside: nothing is read behind `size`
    // bytes. Throws the code of the part that is damaged: 1338, 1337, 1336.
    [[nodiscard]] static SecDesc FromBytes(const void* bytes, std::size_t size);
    // From a text. The message of what is thrown tells the offset of what is wrong: 1337 (ERROR_INVALID_SID)
    // in an identifier, 1336 (ERROR_INVALID_ACL) in a list, 1338 (ERROR_INVALID_SECURITY_DESCR) elsewhere,
    // 1344 (ERROR_ALLOTTED_SPACE_EXCEEDED) where a list would have
    // more than 65,535 bytes; what `SecID::FromText` throws for a domain that is not to be had.
    [[nodiscard]] static SecDesc FromText(Corvel::_TQTextT<wchar_t> text);
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
    // Sets those of the marks in `which` that are in `marks` and takes the others away: the protected, the
    // inherited and the inheritance-asked-for mark of each list. Throws 87 (ERROR_INVALID_PARAMETER) for
    // others.
    SecDesc& SetControl(WORD which, WORD marks);

    // The platform's block, in one piece (self-relative). Throws as `SecACL::Block`.
    [[nodiscard]] Corvel::BYTEBuf Block() const;
    // The text. The parts that are defaults are not told apart there. Throws 50 (ERROR_NOT_SUPPORTED) for an
    // entry that has no text: of a kind without a name, with an application's data or an unknown flag; and for an identifier without sub-authorities.
    [[nodiscard]] Corvel::TQString Text() const;
    // For people, a line for the owner, the group and each entry, as `SecACE::Describe` does.
    [[nodiscard]] Corvel::TQString Describe() const;

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
    BYTE m_resourceControl = 0;  // the object manager's own, where a mark says so
};

// The platform's descriptor with addresses (absolute form), for calls that want that one. It owns the
// parts and belongs to one thread at a time; one that was moved from can only be assigned and destroyed.
class TQLIB_API SecAbsoluteDesc {
  public:
    // Throws as `SecDesc::Block`.
    explicit SecAbsoluteDesc(const SecDesc& descriptor);
    SecAbsoluteDesc(SecAbsoluteDesc&&) noexcept = default;
    SecAbsoluteDesc& operator=(SecAbsoluteDesc&&) noexcept = default;
    virtual ~SecAbsoluteDesc();

    // For platform calls, which may change its head but not the parts; valid as long as this object.
    [[nodiscard]] void* Get() noexcept { return m_head; }

  private:
    Corvel::BYTEBuf m_parts;
    alignas(void*) std::byte m_head[40];
};

}  // namespace Quellan::Sarvek

template <>
struct std::hash<Quellan::Sarvek::SecDesc> {
    std::size_t operator()(const Quellan::Sarvek::SecDesc& descriptor) const noexcept {
        using Quellan::Sarvek::SecACL;
        using Quellan::Sarvek::SecID;
        const auto ofList = [](const SecACL* list) { return list ? std::hash<SecACL>{}(*list) : 0; };
        std::size_t sum = descriptor.Control();
        sum = sum * 31 + std::hash<SecID>{}(descriptor.Owner());
        sum = sum * 31 + std::hash<SecID>{}(descriptor.Group());
        sum = sum * 31 + ofList(descriptor.DACL());
        return sum * 31 + ofList(descriptor.SACL());
    }
};
