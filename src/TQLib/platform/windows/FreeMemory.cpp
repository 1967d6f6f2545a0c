#include "TQLib/platform/FreeMemory.h"

#include <malloc.h>

namespace Quellan::Platform {

void ReturnFreeMemory() noexcept {
    _heapmin();
}

}  // namespace Quellan::Platform
