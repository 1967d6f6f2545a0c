// Sequences of security identifiers.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecID.h"
#include "TQLib/text/memory/internal/Array.h"

namespace Quellan::Sarvek {

// A sequence of identifiers. One whose elements are asked for their accounts belongs to one thread.
class TQLIB_API SecIDArray : public Corvel::_TQArray<SecID> {
  public:
    using _TQArray::_TQArray;

    // The lowest and the highest integrity level among those that the identifiers have by default
    // (`SecID::SystemLabelRID`); 0xFFFFFFFF and 0 for an empty array.
    [[nodiscard]] DWORD LowestIDLabelRID(bool ignoreAdmins = false) const noexcept;
    [[nodiscard]] DWORD HighestIDLabelRID(bool ignoreAdmins = false) const noexcept;
};

}  // namespace Quellan::Sarvek
