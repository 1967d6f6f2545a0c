#include "TQLib/platform/LogFolder.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Platform {

std::wstring FolderForLogs() {
    wchar_t folder[MAX_PATH + 1];
    return std::wstring(folder, GetTempPathW(MAX_PATH + 1, folder));
}

}  // namespace Quellan::Platform
