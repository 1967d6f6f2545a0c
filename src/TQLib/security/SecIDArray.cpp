#include "TQLib/security/SecIDArray.h"

#include <algorithm>
#include <limits>

namespace Quellan::Sarvek {

DWORD SecIDArray::LowestIDLabelRID(bool ignoreAdmins) const noexcept {
    DWORD lowest = std::numeric_limits<DWORD>::max();
    for (const SecID& id : *this)
        lowest = std::min(lowest, id.SystemLabelRID(ignoreAdmins));
    return lowest;
}

DWORD SecIDArray::HighestIDLabelRID(bool ignoreAdmins) const noexcept {
    DWORD highest = 0;
    for (const SecID& id : *this)
        highest = std::max(highest, id.SystemLabelRID(ignoreAdmins));
    return highest;
}

}  // namespace Quellan::Sarvek
