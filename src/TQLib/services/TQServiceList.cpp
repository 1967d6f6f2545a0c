#include "TQLib/services/TQServiceList.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <utility>

namespace Quellan::Corvel {

TQServiceList::TQServiceList() noexcept = default;
TQServiceList::TQServiceList(const TQServiceList&) = default;
TQServiceList::TQServiceList(TQServiceList&&) noexcept = default;
TQServiceList& TQServiceList::operator=(const TQServiceList&) = default;
TQServiceList& TQServiceList::operator=(TQServiceList&&) noexcept = default;
TQServiceList::~TQServiceList() = default;

const TQServiceStatus& TQServiceList::operator[](std::size_t position) const {
    if (position >= m_items.size()) TQStdExceptions::ThrowIndexError(L"TQServiceList::operator[]");
    return m_items[position];
}

const TQServiceStatus& TQServiceList::operator[](const wchar_t* name) const {
    const TQServiceStatus* const found = Find(name);
    if (!found) throw TQException(ERROR_SERVICE_DOES_NOT_EXIST, L"TQServiceList::operator[]");
    return *found;
}

const TQServiceStatus* TQServiceList::Find(const wchar_t* name) const {
    for (const TQServiceStatus& each : m_items)
        if (each.Name().CompareNoCase(name) == 0) return &each;
    return nullptr;
}

void TQServiceList::Add(TQServiceStatus status) {
    Translated(L"TQServiceList::Add", [&] { m_items.push_back(std::move(status)); });
}

}  // namespace Quellan::Corvel
