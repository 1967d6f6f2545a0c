#include "TQLib/platform/linux/base/Errno.h"

#include "TQLib/platform/SystemCodes.h"
#include "TQLib/platform/linux/base/Errors.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>
#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

struct Entry {
    int error;
    DWORD code;
};

constexpr Entry Table[] = {
    {0, ERROR_SUCCESS},
    {EPERM, ERROR_ACCESS_DENIED},
    {ENOENT, ERROR_FILE_NOT_FOUND},
    {ESRCH, ERROR_INVALID_PARAMETER},
    {EINTR, ERROR_OPERATION_ABORTED},
    {EIO, ERROR_IO_DEVICE},
    {ENXIO, ERROR_NOT_READY},
    {E2BIG, ERROR_INVALID_PARAMETER},
    {ENOEXEC, ERROR_BAD_EXE_FORMAT},
    {EBADF, ERROR_INVALID_HANDLE},
    {EAGAIN, ERROR_BUSY},
    {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
    {EACCES, ERROR_ACCESS_DENIED},
    {EFAULT, ERROR_NOACCESS},
    {EBUSY, ERROR_BUSY},
    {EEXIST, ERROR_ALREADY_EXISTS},
    {EXDEV, ERROR_NOT_SAME_DEVICE},
    {ENODEV, ERROR_NOT_READY},
    {ENOTDIR, ERROR_PATH_NOT_FOUND},
    {EISDIR, ERROR_ACCESS_DENIED},
    {EINVAL, ERROR_INVALID_PARAMETER},
    {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
    {EMFILE, ERROR_TOO_MANY_OPEN_FILES},
    {ETXTBSY, ERROR_SHARING_VIOLATION},
    {EFBIG, ERROR_FILE_TOO_LARGE},
    {ENOSPC, ERROR_DISK_FULL},
    {EDQUOT, ERROR_DISK_FULL},
    {ESPIPE, ERROR_SEEK},
    {EROFS, ERROR_WRITE_PROTECT},
    {EMLINK, ERROR_TOO_MANY_LINKS},
    {EPIPE, ERROR_NO_DATA},
    {EDEADLK, ERROR_POSSIBLE_DEADLOCK},
    {ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE},
    {ENOSYS, ERROR_CALL_NOT_IMPLEMENTED},
    {ENOTEMPTY, ERROR_DIR_NOT_EMPTY},
    {ELOOP, ERROR_CANT_RESOLVE_FILENAME},
    {EOVERFLOW, ERROR_FILE_TOO_LARGE},
    {EOPNOTSUPP, ERROR_NOT_SUPPORTED},
    {ETIMEDOUT, ERROR_TIMEOUT},
    {ECANCELED, ERROR_OPERATION_ABORTED},
};

bool FolderExists(const char* path) noexcept {
    std::string_view folder(path);
    while (folder.size() > 1 && folder.back() == '/')
        folder.remove_suffix(1);
    const std::size_t slash = folder.rfind('/');
    if (slash == folder.npos) return true;  // in the current folder
    if (slash >= PATH_MAX) return false;
    char parent[PATH_MAX + 1];
    std::memcpy(parent, path, slash + 1);
    parent[slash + 1] = '\0';
    const int saved = errno;
    struct stat info;
    const bool exists = stat(parent, &info) == 0 && S_ISDIR(info.st_mode);
    errno = saved;
    return exists;
}

}  // namespace

DWORD CodeFromErrno(int error) noexcept {
    for (const Entry& entry : Table)
        if (entry.error == error) return entry.code;
    return ERROR_GEN_FAILURE;
}

DWORD CodeFromErrno(int error, const char* path) noexcept {
    if (error == ENOENT && !FolderExists(path)) return ERROR_PATH_NOT_FOUND;
    return CodeFromErrno(error);
}

DWORD CodeOfSystem(int value) noexcept {
    return CodeFromErrno(value);
}

}  // namespace Quellan::Platform
