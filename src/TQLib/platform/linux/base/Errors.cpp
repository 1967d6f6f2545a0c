#include "TQLib/platform/linux/base/Errors.h"

namespace Quellan::Platform {

namespace {
thread_local DWORD g_lastError = 0;
}

DWORD GetLastError() noexcept {
    return g_lastError;
}
void SetLastError(DWORD code) noexcept {
    g_lastError = code;
}

}  // namespace Quellan::Platform
