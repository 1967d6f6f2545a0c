#include "TQLib/platform/FreeMemory.h"

#include <malloc.h>

namespace Quellan::Platform {

// By itself the allocator returns only the top of its heap, on which one small block that is still in use
// holds down everything.
void ReturnFreeMemory() noexcept {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

}  // namespace Quellan::Platform
