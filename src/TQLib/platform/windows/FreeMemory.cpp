#include "TQLib/platform/FreeMemory.h"

#include <malloc.h>

namespace Quellan::Corvel::Platform {

void ReturnFreeMemory() noexcept {
    _heapmin();
}

}  // namespace Quellan::Corvel::Platform
