// The common base of library objects.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

class STLString;

// Lets every object of the library be destroyed through this base. Copying copies nothing of it.
class TQLIB_API TQObject {
  public:
    // What this object is, for people who read logs: as it comes from here, the name of its class.
    [[nodiscard]] virtual STLString Description() const;
    virtual ~TQObject();

  protected:
    TQObject() noexcept = default;
    TQObject(const TQObject&) noexcept = default;
    TQObject& operator=(const TQObject&) noexcept = default;
};

}  // namespace Quellan::Corvel
