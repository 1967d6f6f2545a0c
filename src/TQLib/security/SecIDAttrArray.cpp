#include "TQLib/security/SecIDAttrArray.h"

#include <algorithm>

namespace Quellan::Sarvek {

bool SecIDAttrArray::IsIDInList(const SecID& id, DWORD* index) const noexcept {
    const auto found = std::ranges::find(*this, id, &SecIDAttr::SID);
    if (found == end()) return false;
    if (index) *index = static_cast<DWORD>(found - begin());
    return true;
}

SecIDArray SecIDAttrArray::IDsArray() const {
    SecIDArray ids;
    for (const SecIDAttr& pair : *this)
        ids.Add(pair.SID());
    return ids;
}

}  // namespace Quellan::Sarvek
