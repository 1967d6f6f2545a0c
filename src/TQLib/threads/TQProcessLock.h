// Keeping a server process alive.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Counts who needs this process as a COM server, and tells the platform of each. Static functions only; all
// may be called from any thread. Each returns the count after it.
class TQLIB_API TQProcessLock {
  public:
    TQProcessLock() = delete;

    [[nodiscard]] static DWORD Lock();
    // At 0 it does nothing.
    static DWORD Unlock();
    [[nodiscard]] static DWORD LockCount();
};

}  // namespace Quellan::Corvel
