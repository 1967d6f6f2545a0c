#include "TQLib/platform/SecretPages.h"

#include "TQLib/platform/Platform.h"

#include <algorithm>

namespace Quellan::Platform {

// Processes have no children that share their memory, and dumps are made by tools that decide for themselves.
void KeepPagesPrivate(void*, std::size_t) noexcept {}

// The system locks as much as the smallest working set of the process has room for.
void RaiseLockLimit() noexcept {
    constexpr SIZE_T More = SIZE_T{1} << 20;
    const DWORD lastError = GetLastError();
    SIZE_T least = 0, most = 0;
    if (GetProcessWorkingSetSize(GetCurrentProcess(), &least, &most))
        SetProcessWorkingSetSize(GetCurrentProcess(), least + More, std::max(most, least + 2 * More));
    SetLastError(lastError);
}

}  // namespace Quellan::Platform
