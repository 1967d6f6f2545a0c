#include "TQLib/platform/linux/files/Volumes.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/files/Mounts.h"

#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

bool IsFolder(const char* path) noexcept {
    struct stat info;
    return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

DWORD FindVolume(std::string path, std::wstring& volume) {
    Mount mount;
    DWORD code = FindMountOf(path.c_str(), mount);
    while ((code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) && path != "/" && path != ".") {
        const std::size_t slash = path.rfind('/');
        path = slash == path.npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        code = FindMountOf(path.c_str(), mount);
    }
    if (code) return code;
    volume = NameToWide(mount.folder);
    if (!volume.ends_with(L'/')) volume += L'/';
    return ERROR_SUCCESS;
}

}  // namespace

BOOL GetVolumePathNameW(const wchar_t* name, wchar_t* volume, DWORD size) noexcept {
    if (DWORD code = FaultDue("GetVolumePathNameW")) return Fail(code, FALSE);
    const NativePath path(name);
    if (path.Code()) return Fail(path.Code(), FALSE);
    if (!volume) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] {
        std::wstring found;
        if (DWORD failed = FindVolume(std::string(path.View()), found)) return failed;
        return CopyOut(found, volume, size) ? ERROR_SUCCESS : ERROR_FILENAME_EXCED_RANGE;
    });
    return code ? Fail(code, FALSE) : TRUE;
}

UINT GetDriveTypeW(const wchar_t* root) noexcept {
    const NativePath path(root ? root : L".");
    if (path.Code() || !IsFolder(path.c_str())) return DRIVE_NO_ROOT_DIR;
    UINT type = DRIVE_UNKNOWN;
    WithMemory([&] {
        Mount mount;
        const DWORD code = FindMountOf(path.c_str(), mount);
        if (!code) type = DriveTypeOf(mount);
        return code;
    });
    return type;
}

}  // namespace Quellan::Platform
