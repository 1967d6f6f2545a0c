// The common base of library objects.
#pragma once

#include "platform/Types.h"

namespace Quellan::Corvel {

class STLString;

// Lets every object of the library be destroyed through this base and say what it is. Copying copies nothing of it.
class TQLIB_API TQObject {
  public:
    // What the object calls itself where a text names it, in the log for instance. By default the full name of its
    // class.
    virtual STLString Describe() const;
    virtual ~TQObject();

  protected:
    TQObject() noexcept = default;
    TQObject(const TQObject&) noexcept = default;
    TQObject& operator=(const TQObject&) noexcept = default;
};

}  // namespace Quellan::Corvel
