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
    // its end; 50 (ERROR_NOT_SUPPORTED) where it has an entry that `SecACE` can't hold.
    explicit SecACL(const ACL& list);

    // Add an entry at the end and give the list back.
    SecACL& Allow(SecID id, DWORD rights, BYTE flags = 0);
    SecACL& Deny(SecID id, DWORD rights, BYTE flags = 0);

    // The entries in the order that the platform's own tools keep: those of the object itself before
    // inherited ones, and of each what is denied before what is allowed; otherwise as they stand.
    [[nodiscard]] SecACL InCanonicalOrder() const;

    // The platform's block. Throws 87 (ERROR_INVALID_PARAMETER) where it would exceed 64 KiB or an entry has
    // no identifier.
    [[nodiscard]] Corvel::BYTEBuf Block() const;

    friend bool operator==(const SecACL& left, const SecACL& right) noexcept = default;
    // With the platform's list, which must be a whole one.
    friend TQLIB_API bool operator==(const SecACL& left, const ACL& right);
};

}  // namespace Quellan::Sarvek
