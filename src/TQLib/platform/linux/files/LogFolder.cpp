#include "TQLib/platform/LogFolder.h"

#include "TQLib/platform/linux/base/State.h"
#include "TQLib/platform/linux/base/Wide.h"

#include <climits>
#include <unistd.h>

namespace Quellan::Platform {

std::wstring FolderForLogs() {
    Descriptor folder;
    if (OpenStateFolder(StateKind::Lasting, "log", folder) != ERROR_SUCCESS) return {};
    char path[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(folder.Get());
    const ssize_t size = readlink(link.c_str(), path, sizeof path);
    return size < 0 ? std::wstring() : ToWide({path, static_cast<std::size_t>(size)});
}

}  // namespace Quellan::Platform
