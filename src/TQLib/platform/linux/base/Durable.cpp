#include "TQLib/platform/linux/base/Durable.h"

#include "TQLib/platform/linux/base/FaultPoint.h"

#include <cstdio>
#include <sys/stat.h>

namespace Quellan::Platform::Durable {

FileIdentity IdentityOf(int file) noexcept {
    struct stat info;
    return fstat(file, &info) == 0 ? FileIdentity{info.st_dev, info.st_ino} : FileIdentity();
}

namespace {

FileIdentity IdentityAt(int folder, const std::string& path) noexcept {
    struct stat info;
    return fstatat(folder, path.c_str(), &info, 0) == 0 ? FileIdentity{info.st_dev, info.st_ino}
                                                        : FileIdentity();
}

std::string ParentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return std::string(slash == path.npos ? "." : path.substr(0, slash + 1));
}

std::string NameOf(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

// Tells the observer, if there is one, what `make` says of a step that succeeded.
template <class Result, class Make>
Result Told(Result result, Make make) noexcept {
    const Observer observer = TheObserver();
    if (observer && result >= 0) observer(make());
    return result;
}

Step WrittenStep(int file, const void* bytes, ssize_t size, off_t offset) {
    return {.kind = Step::Kind::Write,
            .file = IdentityOf(file),
            .offset = offset,
            .bytes = {static_cast<const char*>(bytes), static_cast<std::size_t>(size)},
            .isThrough = (fcntl(file, F_GETFL) & WriteThrough) != 0};
}

}  // namespace

Descriptor Open(int folder, const char* path, int flags, mode_t mode) noexcept {
    const int file = Retry([&] { return openat(folder, path, flags, mode); });
    return Descriptor(Told(file, [&] {
        return Step{.kind = Step::Kind::Open,
                    .file = IdentityOf(file),
                    .folder = IdentityAt(folder, ParentOf(path)),
                    .name = NameOf(path),
                    .truncates = (flags & O_TRUNC) != 0};
    }));
}

ssize_t Write(int file, const void* bytes, std::size_t size) noexcept {
    const ssize_t written = Retry([&] { return write(file, bytes, size); });
    return Told(written, [&] {
        const off_t end = lseek(file, 0, SEEK_CUR);
        return WrittenStep(file, bytes, written, end - written);
    });
}

ssize_t WriteAt(int file, const void* bytes, std::size_t size, off_t offset) noexcept {
    const ssize_t written = Retry([&] { return pwrite(file, bytes, size, offset); });
    return Told(written, [&] { return WrittenStep(file, bytes, written, offset); });
}

int Truncate(int file, off_t size) noexcept {
    return Told(Retry([&] { return ftruncate(file, size); }),
                [&] { return Step{.kind = Step::Kind::Truncate, .file = IdentityOf(file), .offset = size}; });
}

int Reserve(int file, off_t offset, off_t size) noexcept {
    return Retry([&] { return fallocate(file, FALLOC_FL_KEEP_SIZE, offset, size); });
}

int MakeFolder(int folder, const char* path, mode_t mode) noexcept {
    return Told(mkdirat(folder, path, mode), [&] {
        return Step{.kind = Step::Kind::MakeFolder,
                    .file = IdentityAt(folder, path),
                    .folder = IdentityAt(folder, ParentOf(path)),
                    .name = NameOf(path)};
    });
}

int Rename(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept {
    if (const DWORD error = FaultDue("renameat2")) {
        errno = static_cast<int>(error);
        return -1;
    }
    return Told(renameat2(fromFolder, from, toFolder, to, flags), [&] {
        return Step{.kind = Step::Kind::Rename,
                    .folder = IdentityAt(fromFolder, ParentOf(from)),
                    .name = NameOf(from),
                    .toFolder = IdentityAt(toFolder, ParentOf(to)),
                    .toName = NameOf(to)};
    });
}

int Unlink(int folder, const char* path, int flags) noexcept {
    return Told(unlinkat(folder, path, flags), [&] {
        return Step{
            .kind = Step::Kind::Unlink, .folder = IdentityAt(folder, ParentOf(path)), .name = NameOf(path)};
    });
}

int Sync(int file) noexcept {
    return Told(Retry([&] { return fsync(file); }),
                [&] { return Step{.kind = Step::Kind::Sync, .file = IdentityOf(file)}; });
}

int SyncFolderOf(std::string_view path) {
    const std::string folder = ParentOf(path);
    const Descriptor opened(
        Retry([&] { return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY); }));
    return opened ? Sync(opened.Get()) : -1;
}

int SyncFileSystem(int file) noexcept {
    return Told(Retry([&] { return syncfs(file); }),
                [&] { return Step{.kind = Step::Kind::SyncFileSystem, .file = IdentityOf(file)}; });
}

}  // namespace Quellan::Platform::Durable
