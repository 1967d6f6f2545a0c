#include "TQLib/platform/LogFolder.h"

#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Platform {

std::wstring FolderForLogs() {
    wchar_t folder[MAX_PATH + 1];
    return std::wstring(folder, GetTempPathW(MAX_PATH + 1, folder));
}

}  // namespace Quellan::Corvel::Platform
