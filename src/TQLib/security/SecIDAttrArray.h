// Sequences of security identifiers with attributes.
#pragma once

#include "TQLib/security/SecIDArray.h"
#include "TQLib/security/SecIDAttr.h"

namespace Quellan::Sarvek {

// A sequence of identifiers with attributes, such as the groups of a token.
class TQLIB_API SecIDAttrArray : public Corvel::_TQArray<SecIDAttr> {
  public:
    using _TQArray::_TQArray;

    // Whether one of the elements has this identifier; the position of the first such element goes to
    // `index`, if there are both.
    [[nodiscard]] bool IsIDInList(const SecID& id, DWORD* index = nullptr) const noexcept;
    // The identifiers alone, in their order.
    [[nodiscard]] SecIDArray IDsArray() const;
};

}  // namespace Quellan::Sarvek
