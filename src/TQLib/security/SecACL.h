// Access-control lists.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecACE.h"
#include "TQLib/security/SecIDArray.h"
#include "TQLib/text/memory/TQDataBuf.h"

namespace Quellan::Sarvek {

// An ordered sequence of entries with value semantics, the counterpart of the platform's ACL. The platform
// goes through a list from its beginning and stops where everything asked for is allowed or something is
// denied, so the order counts; entries stay where they were added.
class TQLIB_API SecACL : public Corvel::_TQArray<SecACE> {
  public:
    using _TQArray::_TQArray;
    SecACL() noexcept = default;
    // A copy of the platform's list. Throws 1336 (ERROR_INVALID_ACL) for what is none; nothing is read behind
    // the end that it tells.
    explicit SecACL(const ACL& list);
    // The same for bytes from outside, which may be fewer than the list tells.
    [[nodiscard]] static SecACL FromBytes(const void* bytes, std::size_t size);

    // Add an entry at the end and give the list back.
    SecACL& Allow(SecID id, DWORD rights, BYTE flags = 0);
    SecACL& Deny(SecID id, DWORD rights, BYTE flags = 0);

    // The entries in the order that the platform's own tools keep: those of the object itself before
    // inherited ones, and of its own what is denied before all else; otherwise as they stand. Inherited ones
    // came from several objects above, each with an order of its own, which sorting would destroy.
    [[nodiscard]] SecACL InCanonicalOrder() const;
    [[nodiscard]] bool IsCanonical() const noexcept;
    // The entries of both lists in canonical order, inherited ones as they stand. Of the object's own, those
    // that differ in their rights alone become one.
    [[nodiscard]] SecACL Merged(const SecACL& other) const;
    // The entries that count for the object itself: without those for objects below alone.
    [[nodiscard]] SecACL Effective() const;
    // Removes the entries for that identifier and tells how many there were.
    std::size_t Remove(const SecID& id) noexcept;
    // The rights that the list gives to somebody who has all these identifiers: by each right the first entry
    // decides that allows or denies it. Entries with a condition, and those for a kind of objects, deny and
    // never allow. Generic rights stay as they are; what an owner may without any entry is not in it.
    [[nodiscard]] DWORD RightsOf(const SecIDArray& ids) const noexcept;

    // The platform's block. Throws 1344 (ERROR_ALLOTTED_SPACE_EXCEEDED) where it would have more than 65,535
    // bytes, and as `SecACE::Block`.
    [[nodiscard]] Corvel::BYTEBuf Block() const;

    friend bool operator==(const SecACL& left, const SecACL& right) noexcept = default;
    // With the platform's list. Throws 1336 (ERROR_INVALID_ACL) for what is none.
    friend TQLIB_API bool operator==(const SecACL& left, const ACL& right);
};

}  // namespace Quellan::Sarvek

template <>
struct std::hash<Quellan::Sarvek::SecACL> {
    std::size_t operator()(const Quellan::Sarvek::SecACL& list) const noexcept {
        std::size_t sum = list.Count();
        for (const Quellan::Sarvek::SecACE& entry : list)
            sum = sum * 31 + std::hash<Quellan::Sarvek::SecACE>{}(entry);
        return sum;
    }
};
