// The end of the process.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

// Has `function` called when the process ends by `exit` or by returning from main, while its other threads
// still run. False where the system has no room for it.
//
// On Windows the list of the C runtime serves, which the whole process shares, and the library stays loaded
// from then on. What a DLL registers with the `atexit` of its own waits for its unloading, and by then the
// system has ended the other threads, with the locks that they held and never give back.
bool CallAtExit(void (*function)()) noexcept;

// The system has ended all other threads of the process, wherever they were. Never so on Linux.
bool AreOtherThreadsGone() noexcept;

}  // namespace Quellan::Platform
