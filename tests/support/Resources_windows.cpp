#include "TQLib/platform/Win32.h"
#include "support/Resources.h"

namespace Quellan::Corvel::Test {

Resources Resources::Now() {
    DWORD handles = 0;
    GetProcessHandleCount(GetCurrentProcess(), &handles);
    return {0, handles, 0};
}

}  // namespace Quellan::Corvel::Test
