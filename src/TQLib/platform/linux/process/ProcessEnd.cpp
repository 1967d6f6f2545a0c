#include "TQLib/platform/ProcessEnd.h"

#include <cstdlib>

namespace Quellan::Platform {

bool CallAtExit(void (*function)()) noexcept {
    return std::atexit(function) == 0;
}

bool AreOtherThreadsGone() noexcept {
    return false;
}

}  // namespace Quellan::Platform
