#include "TQLib/platform/SharedFlush.h"

namespace Quellan::Platform {

std::unique_ptr<SharedFlush> SharedFlush::Open(HANDLE) {
    return nullptr;
}

}  // namespace Quellan::Platform
