#include "TQLib/services/TQServiceList.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

TQServiceList::TQServiceList() noexcept = default;
TQServiceList::TQServiceList(const TQServiceList&) = default;
TQServiceList::TQServiceList(TQServiceList&&) noexcept = default;
TQServiceList& TQServiceList::operator=(const TQServiceList&) = default;
TQServiceList& TQServiceList::operator=(TQServiceList&&) noexcept = default;
TQServiceList::~TQServiceList() = default;

const TQServiceStatus& TQServiceList::operator[](const wchar_t* name) const {
    const TQServiceStatus* const found = Find(name);
    if (!found) throw TQException(ERROR_SERVICE_DOES_NOT_EXIST, L"TQServiceList::operator[]");
    return *found;
}

const TQServiceStatus* TQServiceList::Find(const wchar_t* name) const {
    for (const TQServiceStatus& each : *this)
        if (each.Name().CompareNoCase(name) == 0) return &each;
    return nullptr;
}

}  // namespace Quellan::Corvel
