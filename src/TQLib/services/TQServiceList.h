// Lists of services.
#pragma once

#include "TQLib/services/TQServiceStatus.h"

#include <cstddef>
#include <vector>

namespace Quellan::Corvel {

// The installed services when they were asked, in the order in which the manager told them. A value.
//
// Throws 1413 (ERROR_INVALID_INDEX) for a position outside, `TQException` 1060
// (ERROR_SERVICE_DOES_NOT_EXIST) for a name that is not in the list.
class TQLIB_API TQServiceList : public TQObject {
  private:
    using InternalArray = std::vector<TQServiceStatus>;

  public:
    using value_type = TQServiceStatus;
    using const_iterator = InternalArray::const_iterator;

    TQServiceList() noexcept;
    TQServiceList(const TQServiceList&);
    TQServiceList(TQServiceList&&) noexcept;
    TQServiceList& operator=(const TQServiceList&);
    TQServiceList& operator=(TQServiceList&&) noexcept;
    ~TQServiceList() override;

    [[nodiscard]] std::size_t Count() const noexcept { return m_items.size(); }
    [[nodiscard]] bool IsEmpty() const noexcept { return m_items.empty(); }

    const TQServiceStatus& operator[](std::size_t position) const;
    // By the service's name, whatever its case.
    const TQServiceStatus& operator[](const wchar_t* name) const;
    // Null where there is none.
    [[nodiscard]] const TQServiceStatus* Find(const wchar_t* name) const;

    void Add(TQServiceStatus status);

    // Valid until the list changes.
    const_iterator begin() const noexcept { return m_items.begin(); }
    const_iterator end() const noexcept { return m_items.end(); }

  private:
    InternalArray m_items;
};

}  // namespace Quellan::Corvel
