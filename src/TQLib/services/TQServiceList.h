// Lists of services.
#pragma once

#include "TQLib/services/TQServiceStatus.h"
#include "TQLib/text/memory/internal/Array.h"

namespace Quellan::Corvel {

// The installed services when they were asked, in the order in which the manager told them. A value.
//
// Fails as `_TQArray` does; throws `TQException` 1060 (ERROR_SERVICE_DOES_NOT_EXIST) for a name that is not in
// the list.
class TQLIB_API TQServiceList : public TQObject, public _TQArray<TQServiceStatus> {
  public:
    TQServiceList() noexcept;
    TQServiceList(const TQServiceList&);
    TQServiceList(TQServiceList&&) noexcept;
    TQServiceList& operator=(const TQServiceList&);
    TQServiceList& operator=(TQServiceList&&) noexcept;
    ~TQServiceList() override;

    using _TQArray::operator[];
    // By the service's name, whatever its case.
    const TQServiceStatus& operator[](const wchar_t* name) const;
    // Null where there is none.
    [[nodiscard]] const TQServiceStatus* Find(const wchar_t* name) const;
};

}  // namespace Quellan::Corvel
