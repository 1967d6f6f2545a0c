// Everything that makes bytes and names last beyond a loss of power. No other file of the layer or of the
// service manager makes these calls for what has to last, so that test builds, to which each step is told,
// see all there is.
//
// A new file lasts when it and the folder it stands in were synced, a changed name when its folder was, a
// moved one when both were. What was renamed without having been synced before may be found empty.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace Quellan::Platform::Durable {

// For Open: each write is on the disk when it returns.
constexpr int WriteThrough = O_DSYNC;

// As the kernel's calls: errno on failure, -1 or an empty descriptor. What a signal interrupts is begun
// again. Paths count from `folder` on, AT_FDCWD for the process's own.
Descriptor Open(int folder, const char* path, int flags, mode_t mode = 0) noexcept;
ssize_t Write(int file, const void* bytes, std::size_t size) noexcept;
ssize_t WriteAt(int file, const void* bytes, std::size_t size, off_t offset) noexcept;
int Truncate(int file, off_t size) noexcept;
// Takes room beyond the end of the file, which does not move, for what is written there later.
int Reserve(int file, off_t offset, off_t size) noexcept;
int MakeFolder(int folder, const char* path, mode_t mode) noexcept;
// `flags` as of renameat2.
int Rename(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags = 0) noexcept;
int Unlink(int folder, const char* path, int flags = 0) noexcept;

// A file or a folder. One that failed has lost what it was for: a second one would find nothing left to do
// and succeed.
int Sync(int file) noexcept;
// Of the folder in which `path` stands. May throw std::bad_alloc.
int SyncFolderOf(std::string_view path);
// All of the file system that holds the file.
int SyncFileSystem(int file) noexcept;

// Of a file, for as long as it is open or has a name.
struct FileIdentity {
    dev_t device = 0;
    ino_t number = 0;

    auto operator<=>(const FileIdentity&) const = default;
};
FileIdentity IdentityOf(int file) noexcept;

// What was done, as test builds tell it.
struct Step {
    enum class Kind { Open, Write, Truncate, MakeFolder, Rename, Unlink, Sync, SyncFileSystem };

    Kind kind;
    FileIdentity file{};    // what was opened, made, written, cut or synced
    FileIdentity folder{};  // where `name` stands
    std::string name{};
    FileIdentity toFolder{};  // of Rename
    std::string toName{};
    off_t offset = 0;  // of Write; of Truncate the new size
    std::string bytes{};
    bool isThrough = false;  // of Write: on the disk
    bool truncates = false;  // of Open
};

// Called after each step that succeeded, on its thread.
using Observer = void (*)(const Step& step);

#if defined(TQ_FAULT_POINTS)
TQLIB_API Observer& TheObserver() noexcept;
#else
constexpr Observer TheObserver() noexcept {
    return nullptr;
}
#endif

}  // namespace Quellan::Platform::Durable
