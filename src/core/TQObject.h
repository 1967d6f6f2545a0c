// The common base of library objects.
#pragma once

#include "platform/Types.h"

namespace Quellan::Corvel {

// Lets every object of the library be destroyed through this base. Copying copies nothing of it.
class TQLIB_API TQObject {
  public:
    virtual ~TQObject();

  protected:
    TQObject() noexcept = default;
    TQObject(const TQObject&) noexcept = default;
    TQObject& operator=(const TQObject&) noexcept = default;
};

}  // namespace Quellan::Corvel
