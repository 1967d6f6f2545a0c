#include "TQLib/platform/linux/files/Files.h"

#include "TQLib/platform/OpenFiles.h"
#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/EnvironmentBlock.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/base/QuietWrite.h"
#include "TQLib/platform/linux/base/Reservations.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/files/FileObject.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/ShareModes.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <iterator>
#include <memory>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>

namespace Quellan::Platform {

namespace {

constexpr DWORD AllWriteRights = FILE_WRITE_DATA | FILE_APPEND_DATA;
constexpr mode_t AllMayWrite = S_IWUSR | S_IWGRP | S_IWOTH;

// The rights to data and to the file's name; others are implied by having opened the file.
DWORD DataRights(DWORD access) noexcept {
    return MapRights(FileObject::Kind.rights, access) & (FILE_READ_DATA | AllWriteRights | DELETE);
}

// What CreateFileW is asked for.
struct Opening {
    DWORD rights;
    DWORD share;
    DWORD disposition;
    DWORD flags;
    std::optional<FileSecurity> security;  // for a new file

    bool Creates() const noexcept {
        return disposition == CREATE_NEW || disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
    }
    bool Truncates() const noexcept {
        return disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING;
    }
    bool Writes() const noexcept { return rights & AllWriteRights || Truncates(); }
    // Whether it leaves everything as it is.
    bool OnlyReads() const noexcept { return !Creates() && !Writes() && !security; }
};

DWORD ReadOpening(DWORD access, DWORD share, const SECURITY_ATTRIBUTES* security, DWORD disposition,
                  DWORD flags, HANDLE templateFile, Opening& opening) {
    constexpr DWORD Shares = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    constexpr DWORD Offered = FILE_FLAG_WRITE_THROUGH | FILE_FLAG_RANDOM_ACCESS | FILE_FLAG_SEQUENTIAL_SCAN |
                              FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_POSIX_SEMANTICS |
                              FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NORMAL |
                              FILE_ATTRIBUTE_TEMPORARY;
    opening = {DataRights(access), share, disposition, flags, std::nullopt};
    if (share & ~Shares || disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING)
        return ERROR_INVALID_PARAMETER;
    if (disposition == TRUNCATE_EXISTING && !(opening.rights & FILE_WRITE_DATA))
        return ERROR_INVALID_PARAMETER;
    if (flags & ~Offered || templateFile) return ERROR_NOT_SUPPORTED;
    if (!security) return ERROR_SUCCESS;
    if (security->bInheritHandle) return ERROR_NOT_SUPPORTED;
    if (!security->lpSecurityDescriptor) return ERROR_SUCCESS;
    FileSecurity given;
    if (DWORD code = ReadDescriptor(security->lpSecurityDescriptor, given)) return code;
    if (given.hasList) opening.security = std::move(given);
    return ERROR_SUCCESS;
}

// With `readsToo` for a file that is only to be written: its share mode is kept by locks that take the right
// to read.
int OpenFlags(const Opening& opening, bool readsToo) noexcept {
    int open = O_CLOEXEC | O_NOCTTY;
    if (opening.Writes())
        open |= readsToo || opening.rights & FILE_READ_DATA ? O_RDWR : O_WRONLY;
    else if (opening.rights == 0 && opening.disposition == OPEN_EXISTING)
        open |= O_PATH;  // questions about a file take no right to it
    if (opening.rights & FILE_APPEND_DATA && !(opening.rights & FILE_WRITE_DATA)) open |= O_APPEND;
    if (opening.flags & FILE_FLAG_WRITE_THROUGH) open |= Durable::WriteThrough;
    return open;
}

DWORD ModeOfNew(const Opening& opening, mode_t& mode) {
    mode = 0666;
    if (opening.security)
        if (DWORD code = ModeOf(*opening.security, geteuid(), getegid(), mode)) return code;
    if (opening.flags & FILE_ATTRIBUTE_READONLY) mode &= ~AllMayWrite;
    return ERROR_SUCCESS;
}

// Whether somebody else than the caller and root can put things into the file's folder, or it does not say.
bool IsOthersFolder(std::string_view path, struct stat& folder) {
    const std::size_t slash = path.rfind('/');
    const std::string name(slash == path.npos ? "." : path.substr(0, slash + 1));
    folder = {};
    if (stat(name.c_str(), &folder) != 0) return true;
    return folder.st_mode & S_IWOTH || (folder.st_uid != 0 && folder.st_uid != geteuid());
}

bool IsLink(const char* path) noexcept {
    struct stat info;
    return lstat(path, &info) == 0 && S_ISLNK(info.st_mode);
}

// Opens what is there, or makes it with `mode`; tells which.
DWORD OpenOrCreate(const char* path, int flags, const Opening& opening, mode_t mode, Descriptor& file,
                   bool& existed) noexcept {
    // Whoever deletes and makes the file in between must do so each time for this to fail.
    constexpr int Attempts = 16;
    for (int attempt = 0;; ++attempt) {
        existed = false;
        if (opening.Creates()) file = Durable::Open(AT_FDCWD, path, flags | O_CREAT | O_EXCL, mode);
        if (file) return ERROR_SUCCESS;
        if (opening.Creates() && errno != EEXIST) return CodeFromErrno(errno, path);
        if (opening.disposition == CREATE_NEW) return ERROR_FILE_EXISTS;
        existed = true;
        file = Descriptor(Retry([&] { return open(path, flags); }));
        if (file) return ERROR_SUCCESS;
        if (!opening.Creates() || errno != ENOENT || attempt == Attempts) return CodeFromErrno(errno, path);
        if (!IsLink(path)) continue;
        // What a link to nowhere names is made through the link: the kernel decides who may follow it.
        existed = false;
        file = Durable::Open(AT_FDCWD, path, flags | O_CREAT, mode);
        if (file || errno != ENOENT) return file ? ERROR_SUCCESS : CodeFromErrno(errno, path);
    }
}

// A folder gives no data and takes none: it is opened for questions, whatever rights were asked for.
DWORD OpenFolder(const char* path, const Opening& opening, Descriptor& folder) noexcept {
    if (opening.disposition == CREATE_NEW) return ERROR_FILE_EXISTS;
    if (!(opening.flags & FILE_FLAG_BACKUP_SEMANTICS) ||
        (opening.disposition != OPEN_EXISTING && opening.disposition != OPEN_ALWAYS))
        return ERROR_ACCESS_DENIED;
    folder = Descriptor(Retry([&] { return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    return folder ? ERROR_SUCCESS : CodeFromErrno(errno, path);
}

// Whether a path leads to a folder. What leads nowhere does not; a question without an answer is a failure.
DWORD AskForFolder(const char* path, bool& isFolder) noexcept {
    struct stat info;
    const bool found = stat(path, &info) == 0;
    isFolder = found && S_ISDIR(info.st_mode);
    const bool leadsNowhere = errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == EACCES;
    return found || leadsNowhere ? ERROR_SUCCESS : CodeFromErrno(errno, path);
}

DWORD SyncFile(const char* path) noexcept {
    const Descriptor opened(Retry([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
    return opened && Durable::Sync(opened.Get()) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno, path);
}

DWORD SyncFolderOf(std::string_view path) {
    return Durable::SyncFolderOf(path) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

// Of a file that writes through its size is on the disk as well.
DWORD SetSize(int fd, off_t size, bool writesThrough) noexcept {
    const bool done = Durable::Truncate(fd, size) == 0 && (!writesThrough || Durable::Sync(fd) == 0);
    return done ? ERROR_SUCCESS : CodeFromErrno(errno);
}

// Whether a file that was opened by this path still has it: somebody may have moved it before its share mode
// could keep it there. `flags` are AT_SYMLINK_NOFOLLOW or 0. What is there now is in `named`.
DWORD AskWhetherAt(const char* path, const struct stat& opened, int flags, struct stat& named,
                   bool& isThere) noexcept {
    const bool found = fstatat(AT_FDCWD, path, &named, flags) == 0;
    isThere = found && opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
    return found || errno == ENOENT ? ERROR_SUCCESS : CodeFromErrno(errno);
}

// A file that was made and is removed again, unless it is to stay.
class MadeFile {
  public:
    explicit MadeFile(const char* path) noexcept : m_path(path) {}
    ~MadeFile() {
        struct stat info, named;
        bool isThere = false;
        if (m_fd < 0 || fstat(m_fd, &info) != 0) return;
        if (!AskWhetherAt(m_path, info, AT_SYMLINK_NOFOLLOW, named, isThere) && isThere)
            Durable::Unlink(AT_FDCWD, m_path);
    }
    MadeFile(const MadeFile&) = delete;
    MadeFile& operator=(const MadeFile&) = delete;

    // To be called once its share mode is entered: before that somebody else may have it for himself.
    void Holds(int fd) noexcept { m_fd = fd; }
    void Stays() noexcept { m_fd = -1; }

  private:
    const char* const m_path;
    int m_fd = -1;
};

struct Opened : OpenedFile {
    bool existed = false;
    bool isFolder = false;
};

DWORD OpenAndEnter(const char* path, const Opening& opening, bool readsToo, mode_t mode, Opened& opened,
                   MadeFile& made) {
    constexpr int Attempts = 16;
    Descriptor& file = opened.file;
    struct stat folder;
    const bool isGuarded = opening.Creates() && IsOthersFolder(path, folder);
    const int noLink = isGuarded ? O_NOFOLLOW : 0;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        DWORD code =
            OpenOrCreate(path, OpenFlags(opening, readsToo) | noLink, opening, mode, file, opened.existed);
        if (code == ERROR_ACCESS_DENIED)  // it may be one that can be written and not be read
            code =
                OpenOrCreate(path, OpenFlags(opening, false) | noLink, opening, mode, file, opened.existed);
        if (code) return code;
        struct stat info, named;
        if (fstat(file.Get(), &info) != 0) return CodeFromErrno(errno);
        opened.id = {info.st_dev, info.st_ino};
        opened.isPlain = S_ISREG(info.st_mode);
        opened.isFolder = S_ISDIR(info.st_mode);
        if (!opened.isPlain) return ERROR_SUCCESS;
        // Whoever means to make a file must not be handed one that a third user has prepared.
        if (isGuarded && opened.existed && info.st_uid != geteuid() && info.st_uid != 0 &&
            info.st_uid != folder.st_uid)
            return ERROR_ACCESS_DENIED;
        if (DWORD failed = EnterShareMode(file.Get(), opening.rights, opening.share)) return failed;
        if (!opened.existed) made.Holds(file.Get());
        // A reader that lets others move the file may as well have come before them.
        if (opening.OnlyReads() && (opening.rights == 0 || opening.share & FILE_SHARE_DELETE))
            return ERROR_SUCCESS;
        bool isThere = false;
        if (DWORD failed = AskWhetherAt(path, info, 0, named, isThere)) return failed;
        if (isThere) {
            if (opening.OnlyReads() && !(opening.share & FILE_SHARE_WRITE))
                opened.fixedSize = static_cast<std::uint64_t>(named.st_size);
            return ERROR_SUCCESS;
        }
        made.Stays();  // wherever it was moved to
    }
    return ERROR_SHARING_VIOLATION;
}

// What is left to do with a plain file once nothing else can fail: contents are gone for good.
DWORD FinishOpening(const char* path, const Opening& opening, int fd, bool existed) {
    const bool writesThrough = opening.flags & FILE_FLAG_WRITE_THROUGH;
    if (opening.Truncates())
        if (DWORD code = SetSize(fd, 0, writesThrough)) return code;
    if (existed) return ERROR_SUCCESS;
    if (opening.security)
        if (DWORD code = ApplySecurity(fd, *opening.security, DACL_SECURITY_INFORMATION)) return code;
    return writesThrough ? SyncFolderOf(path) : ERROR_SUCCESS;
}

DWORD OpenPlain(const char* path, const Opening& opening, bool readsToo, Opened& opened, MadeFile& made) {
    mode_t mode = 0;
    if (DWORD code = ModeOfNew(opening, mode)) return code;
    if (DWORD code = OpenAndEnter(path, opening, readsToo, mode, opened, made)) return code;
    if (!opened.isPlain) return ERROR_SUCCESS;
    const int fd = opened.file.Get();
    if (opening.flags & FILE_FLAG_SEQUENTIAL_SCAN) posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    if (opening.flags & FILE_FLAG_RANDOM_ACCESS) posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
    return ERROR_SUCCESS;
}

// Opens a path and what is there first, or asks first what is there where the answer decides how to open it.
DWORD OpenWhatever(const char* path, const Opening& opening, Opened& opened, MadeFile& made) {
    if (opening.OnlyReads()) {
        if (DWORD code = OpenPlain(path, opening, true, opened, made)) return code;
    } else {
        struct stat info;
        const bool found = stat(path, &info) == 0;
        if (!found && errno != ENOENT) return CodeFromErrno(errno, path);
        opened.isFolder = found && S_ISDIR(info.st_mode);
        if (found && !opened.isFolder && opening.Writes() && opening.disposition != CREATE_NEW &&
            !(info.st_mode & AllMayWrite))
            return ERROR_ACCESS_DENIED;  // also for root, whom the system would let through
        if (!opened.isFolder) return OpenPlain(path, opening, !found || S_ISREG(info.st_mode), opened, made);
    }
    if (!opened.isFolder) return ERROR_SUCCESS;
    opened.existed = true;
    opened.file = Descriptor();
    if (DWORD code = OpenFolder(path, opening, opened.file)) return code;
    opened.id = Durable::IdentityOf(opened.file.Get());
    return ERROR_SUCCESS;
}

DWORD OpenFile(const char* path, const Opening& opening, HANDLE& handle, bool& existed) {
    Opened opened;
    std::shared_ptr<FileObject> object;
    MadeFile made(path);  // goes before the descriptor does
    if (DWORD code = OpenWhatever(path, opening, opened, made)) return code;
    existed = opened.existed;
    const bool isPlain = opened.isPlain;
    object = std::make_shared<FileObject>(std::move(opened), opening.flags & FILE_FLAG_WRITE_THROUGH);
    if (DWORD code = InsertHandle(object, opening.rights, handle)) return code;
    if (isPlain)
        if (DWORD code = FinishOpening(path, opening, object->Fd(), existed)) {
            CloseHandleOf(handle, &FileObject::Kind);
            return code;
        }
    made.Stays();
    return ERROR_SUCCESS;
}

// Moves bytes until all are through, the end is reached or, on anything but a file, the system gave what it
// had.
template <class Transfer>
DWORD TransferAll(DWORD size, bool wholeOnly, DWORD& done, Transfer transfer) noexcept {
    while (done < size) {
        const ssize_t moved = Retry([&] { return transfer(done, size - done); });
        if (moved < 0) return errno == EISDIR ? ERROR_INVALID_FUNCTION : CodeFromErrno(errno);
        done += static_cast<DWORD>(moved);
        if (moved == 0 || !wholeOnly) break;
    }
    return ERROR_SUCCESS;
}

// The number of bytes moved is 0 also for a call that is refused.
DWORD CheckTransfer(const HandleRef<FileObject>& file, const OVERLAPPED* overlapped, DWORD* count,
                    DWORD right) noexcept {
    if (count) *count = 0;
    if (!file) return ERROR_INVALID_HANDLE;
    if (overlapped) return ERROR_NOT_SUPPORTED;
    if (!count) return ERROR_INVALID_PARAMETER;
    return file.Access() & right ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

// Whether all of a buffer can be read. The kernel looks no further than the page it is at, and would write
// what stands before an unreadable one.
bool IsReadable(const void* buffer, DWORD size) noexcept {
    const auto begin = reinterpret_cast<ULONG_PTR>(buffer);
    const ULONG_PTR page = begin & ~(PageSize() - 1);
    const ULONG_PTR bytes = begin - page + size;
    if (bytes <= PageSize()) return true;
    return madvise(reinterpret_cast<void*>(page), bytes, MADV_POPULATE_READ) == 0 ||
           !IsBadReadPtr(buffer, size);
}

FILETIME ToFileTime(const statx_timestamp& time) noexcept {
    return FileTimeOf(timespec{.tv_sec = time.tv_sec, .tv_nsec = static_cast<long>(time.tv_nsec)});
}

// Fills what WIN32_FILE_ATTRIBUTE_DATA and WIN32_FIND_DATAW have in common. errno on failure.
template <class Data>
bool Describe(int folder, const char* name, Data& data) noexcept {
    struct statx info;
    if (statx(folder, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &info) != 0) return false;
    mode_t kind = info.stx_mode;
    DWORD attributes = 0;
    if (S_ISLNK(kind)) {
        struct stat target;
        attributes |= FILE_ATTRIBUTE_REPARSE_POINT;
        kind = fstatat(folder, name, &target, 0) == 0 ? target.st_mode : S_IFREG;
    } else if (!(kind & AllMayWrite)) {
        attributes |= FILE_ATTRIBUTE_READONLY;
    }
    if (S_ISDIR(kind))
        attributes |= FILE_ATTRIBUTE_DIRECTORY;
    else if (!S_ISREG(kind))
        attributes |= FILE_ATTRIBUTE_DEVICE;
    const std::uint64_t size = S_ISREG(info.stx_mode) ? info.stx_size : 0;
    data.dwFileAttributes = attributes ? attributes : FILE_ATTRIBUTE_NORMAL;
    data.ftCreationTime = ToFileTime(info.stx_mask & STATX_BTIME ? info.stx_btime : info.stx_mtime);
    data.ftLastAccessTime = ToFileTime(info.stx_atime);
    data.ftLastWriteTime = ToFileTime(info.stx_mtime);
    data.nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data.nFileSizeLow = static_cast<DWORD>(size);
    return true;
}

DWORD DescribePath(const wchar_t* name, WIN32_FILE_ATTRIBUTE_DATA& data) noexcept {
    const NativePath path(name);
    if (path.Code()) return path.Code();
    return Describe(AT_FDCWD, path.c_str(), data) ? ERROR_SUCCESS : CodeFromErrno(errno, path.c_str());
}

bool Matches(std::wstring_view name, std::wstring_view pattern) noexcept {
    // After a mismatch the last '*' takes one character more.
    std::size_t at = 0, afterStar = pattern.npos, starEnd = 0, i = 0;
    while (i < name.size()) {
        if (at < pattern.size() && pattern[at] == L'*') {
            afterStar = ++at;
            starEnd = i;
        } else if (at < pattern.size() && (pattern[at] == L'?' || pattern[at] == name[i])) {
            ++at;
            ++i;
        } else if (afterStar != pattern.npos) {
            at = afterStar;
            i = ++starEnd;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(L'*', at) == pattern.npos;
}

// A walk through the entries of one folder that match a pattern.
class FindObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "find", .closedByCloseHandle = false};

    FindObject(Descriptor folder, std::wstring_view pattern)
        : Object(Kind),
          // Names without a dot match too.
          m_pattern(pattern.substr(0, pattern.size() - (pattern.ends_with(L"*.*") ? 2 : 0))),
          m_folder(fdopendir(folder.Get()), closedir) {
        if (m_folder) folder.Release();
    }

    // 18 (ERROR_NO_MORE_FILES) after the last one.
    DWORD Next(WIN32_FIND_DATAW& data) {
        const Guard lock(m_lock);
        if (!m_folder) return ERROR_NOT_ENOUGH_MEMORY;
        for (;;) {
            errno = 0;
            const dirent* entry = readdir(m_folder.get());
            if (!entry) return errno ? CodeFromErrno(errno) : ERROR_NO_MORE_FILES;
            const std::wstring name = NameToWide(entry->d_name);
            if (!Matches(name, m_pattern)) continue;
            if (!Describe(dirfd(m_folder.get()), entry->d_name, data)) {
                if (errno == ENOENT || errno == EACCES) continue;  // gone, or hidden from this user
                return CodeFromErrno(errno);
            }
            SetName(name, data);
            return ERROR_SUCCESS;
        }
    }

    static void SetName(std::wstring_view name, WIN32_FIND_DATAW& data) noexcept {
        data.dwReserved0 = data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT ? IO_REPARSE_TAG_SYMLINK : 0;
        data.dwReserved1 = 0;
        CopyOut(name.substr(0, MAX_PATH - 1), data.cFileName, MAX_PATH);
        data.cAlternateFileName[0] = L'\0';
    }

  private:
    const std::wstring m_pattern;
    ObjectLock<> m_lock;
    const std::unique_ptr<DIR, int (*)(DIR*)> m_folder TQ_GUARDED_BY(m_lock);
};

DWORD FindFirst(const wchar_t* pattern, WIN32_FIND_DATAW& data, HANDLE& handle) {
    const NativePath path(pattern);
    if (path.Code()) return path.Code();
    const std::string_view whole = path.View();
    const std::size_t slash = whole.rfind('/');
    const std::string folder(slash == whole.npos ? "." : whole.substr(0, slash + 1));
    const std::string last(whole.substr(slash == whole.npos ? 0 : slash + 1));
    Descriptor opened(Retry([&] { return open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!opened) return errno == ENOENT ? ERROR_PATH_NOT_FOUND : CodeFromErrno(errno, folder.c_str());
    if (last.empty()) return ERROR_FILE_NOT_FOUND;

    // Without wildcards there is nothing to search, and later calls find nothing more.
    const bool searches = last.find_first_of("*?") != last.npos;
    if (!searches) {
        if (!Describe(opened.Get(), last.c_str(), data)) return CodeFromErrno(errno);
        FindObject::SetName(NameToWide(last), data);
    } else if (faccessat(opened.Get(), ".", X_OK, AT_EACCESS) != 0) {
        return CodeFromErrno(errno);  // names alone can be read, and nothing of what they stand for
    }
    auto find = std::make_shared<FindObject>(std::move(opened), searches ? NameToWide(last) : std::wstring());
    if (searches) {
        const DWORD code = find->Next(data);
        if (code) return code == ERROR_NO_MORE_FILES ? ERROR_FILE_NOT_FOUND : code;
    }
    return InsertHandle(std::move(find), 0, handle);
}

DWORD RemoveFolder(const char* path) noexcept {
    struct stat info;
    bool isFolder = false;
    if (IsLink(path))
        if (DWORD code = AskForFolder(path, isFolder)) return code;
    if (isFolder) return Durable::Unlink(AT_FDCWD, path) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
    if (Durable::Unlink(AT_FDCWD, path, AT_REMOVEDIR) == 0) return ERROR_SUCCESS;
    if (errno == ENOTDIR && lstat(path, &info) == 0) return ERROR_DIRECTORY;
    return errno == EEXIST ? ERROR_DIR_NOT_EMPTY : CodeFromErrno(errno, path);
}

// Holds the name of a plain file for deleting or moving it: whoever opens it meanwhile must share that. Files
// that can be neither read nor written can be deleted nevertheless, as folders decide that; nobody is asked
// then. Whatever else keeps a file from being opened keeps it from being deleted: somebody may have it.
DWORD HoldForDelete(const char* path, Descriptor& file) noexcept {
    constexpr int Attempts = 16;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        struct stat info, named;
        if (lstat(path, &info) != 0) return CodeFromErrno(errno, path);
        if (!S_ISREG(info.st_mode)) return ERROR_SUCCESS;
        for (const int mode : {O_RDONLY, O_WRONLY}) {
            constexpr int Flags = O_CLOEXEC | O_NOCTTY | O_NOFOLLOW | O_NONBLOCK;
            file = Descriptor(Retry([&] { return open(path, mode | Flags); }));
            if (file || errno != EACCES) break;
        }
        if (!file) return errno == EACCES ? ERROR_SUCCESS : CodeFromErrno(errno, path);
        constexpr DWORD All = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        if (DWORD code = EnterShareMode(file.Get(), DELETE, All)) return code;
        bool isThere = false;
        if (fstat(file.Get(), &info) != 0) return CodeFromErrno(errno);
        if (DWORD code = AskWhetherAt(path, info, AT_SYMLINK_NOFOLLOW, named, isThere)) return code;
        if (isThere) return ERROR_SUCCESS;
    }
    return ERROR_SHARING_VIOLATION;
}

// 5 for what no file may take the place of: a folder, a link to one, a read-only file.
DWORD CheckIsFile(const char* path, const struct stat& info) noexcept {
    bool isFolder = S_ISDIR(info.st_mode);
    if (S_ISLNK(info.st_mode))
        if (DWORD code = AskForFolder(path, isFolder)) return code;
    const bool readOnly = !S_ISLNK(info.st_mode) && !(info.st_mode & AllMayWrite);
    return isFolder || readOnly ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

DWORD RemoveFile(const char* path) noexcept {
    struct stat info;
    Descriptor held;
    if (lstat(path, &info) != 0) return CodeFromErrno(errno, path);
    if (DWORD code = CheckIsFile(path, info)) return code;
    if (DWORD code = HoldForDelete(path, held)) return code;
    return Durable::Unlink(AT_FDCWD, path) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno, path);
}

// What stands at the new name and is to be replaced, if there is anything.
DWORD HoldForReplacing(const char* path, Descriptor& file, bool& exists) noexcept {
    struct stat info;
    exists = lstat(path, &info) == 0;
    if (!exists) return errno == ENOENT ? ERROR_SUCCESS : CodeFromErrno(errno, path);
    if (DWORD code = CheckIsFile(path, info)) return code;
    const DWORD code = HoldForDelete(path, file);
    return code == ERROR_SHARING_VIOLATION ? ERROR_ACCESS_DENIED : code;
}

bool IsSameFile(const char* first, const char* second) noexcept {
    struct stat one, other;
    return lstat(first, &one) == 0 && lstat(second, &other) == 0 && one.st_ino == other.st_ino &&
           one.st_dev == other.st_dev;
}

// The folder of a path, and the rest of it.
std::pair<std::string, std::string_view> Split(std::string_view path) {
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    if (slash == path.npos) return {".", path};
    return {std::string(path.substr(0, slash + 1)), path.substr(slash + 1)};
}

// Whether two paths to one file are the same name in the same folder, and not two links to it.
bool IsSameEntry(std::string_view first, std::string_view second) {
    const auto [folder, name] = Split(first);
    const auto [otherFolder, otherName] = Split(second);
    return name == otherName && IsSameFile((folder + "/.").c_str(), (otherFolder + "/.").c_str());
}

// Gives a file its new name. A file that takes the place of another must find it as it was held: `exists`
// tells whether there was one. errno on failure.
bool Rename(const char* from, const char* to, bool exists, bool replaces) noexcept {
    // Of two links to one file the kernel would leave both.
    if (exists && IsSameFile(from, to)) return Durable::Unlink(AT_FDCWD, from) == 0;
    const auto give = [&](unsigned flags) {
        return Durable::Rename(AT_FDCWD, from, AT_FDCWD, to, flags) == 0;
    };
    if (give(exists ? 0 : RENAME_NOREPLACE)) return true;
    // Some file systems cannot promise to replace nothing.
    return errno == EINVAL && replaces && !exists && give(0);
}

DWORD MoveFile(const NativePath& from, const NativePath& to, DWORD flags) {
    const bool replaces = flags & MOVEFILE_REPLACE_EXISTING;
    const bool durable = flags & MOVEFILE_WRITE_THROUGH;
    bool isFolder = false;
    Descriptor held;
    if (DWORD code = HoldForDelete(from.c_str(), held)) return code;
    if (DWORD code = AskForFolder(from.c_str(), isFolder)) return code;
    if (IsSameFile(from.c_str(), to.c_str()) && IsSameEntry(from.View(), to.View())) return ERROR_SUCCESS;
    if (durable && !isFolder)
        if (DWORD code = SyncFile(from.c_str())) return code;
    constexpr int Attempts = 16;
    for (int attempt = 0;; ++attempt) {
        Descriptor heldTarget;
        bool exists = false;
        if (replaces)
            if (DWORD code = HoldForReplacing(to.c_str(), heldTarget, exists)) return code;
        if (Rename(from.c_str(), to.c_str(), exists, replaces)) break;
        const int error = errno;
        struct stat info;
        // Somebody made it meanwhile, and may hold it.
        if (error == EEXIST && replaces && !exists && attempt < Attempts) continue;
        if (error == ENOENT && lstat(from.c_str(), &info) == 0)
            return ERROR_PATH_NOT_FOUND;  // of the new name
        if (error == EINVAL && !replaces) return ERROR_NOT_SUPPORTED;
        if (error == ENOTDIR && replaces && isFolder) return ERROR_ACCESS_DENIED;
        return CodeFromErrno(error, from.c_str());
    }
    if (!durable) return ERROR_SUCCESS;
    if (DWORD code = SyncFolderOf(to.View())) return code;
    return SyncFolderOf(from.View());
}

// `path` from the root on, without what "." and ".." stand for. 3 (ERROR_PATH_NOT_FOUND) where the current
// folder was removed.
DWORD FullPath(std::wstring_view path, std::wstring& full) {
    if (!path.starts_with(L'/')) {
        const std::unique_ptr<char, void (*)(void*)> folder(getcwd(nullptr, 0), std::free);
        if (!folder) return errno == ENOENT ? ERROR_PATH_NOT_FOUND : CodeFromErrno(errno);
        full = NameToWide(folder.get());
        if (full == L"/") full.clear();
    }
    const bool endsInSlash = path.ends_with(L'/');
    while (!path.empty()) {
        const std::size_t slash = std::min(path.find(L'/'), path.size());
        const std::wstring_view part = path.substr(0, slash);
        path.remove_prefix(std::min(slash + 1, path.size()));
        if (part == L"..")
            full.resize(full.empty() ? 0 : full.rfind(L'/'));
        else if (!part.empty() && part != L".")
            full.append(L"/").append(part);
    }
    if (endsInSlash || full.empty()) full += L'/';
    return ERROR_SUCCESS;
}

DWORD LockRange(HANDLE file, std::uint64_t offset, std::uint64_t size, Deadline deadline) noexcept {
    const HandleRef<FileObject> object(file);
    if (!object) return ERROR_INVALID_HANDLE;
    if (!(object.Access() & AllWriteRights) || !object->OwnsLocks()) return ERROR_ACCESS_DENIED;
    return WithMemory([&] { return object->Locks().Lock(object->Fd(), offset, size, deadline); });
}

std::uint64_t Joined(DWORD low, DWORD high) noexcept {
    return std::uint64_t{high} << 32 | low;
}

DWORD SetAttributes(const char* path, DWORD attributes) noexcept {
    constexpr DWORD Known = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_ARCHIVE |
                            FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_NORMAL | FILE_ATTRIBUTE_TEMPORARY;
    if (attributes & ~Known) return ERROR_NOT_SUPPORTED;
    struct stat info;
    if (stat(path, &info) != 0) return CodeFromErrno(errno, path);
    const bool readOnly = !(info.st_mode & AllMayWrite);
    const bool wanted = attributes & FILE_ATTRIBUTE_READONLY;
    if (readOnly == wanted) return ERROR_SUCCESS;
    const mode_t mode = (info.st_mode & 07777 & ~AllMayWrite) | (wanted ? 0 : S_IWUSR);
    return chmod(path, mode) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno, path);
}

// The three standard files, which stay open when their handles are closed.
class StandardFile : public FileObject {
  public:
    // The program may put something else in its descriptor's place: it counts as no plain file.
    explicit StandardFile(int fd) noexcept : FileObject(fd) {}
};

// Made by the first call that succeeds.
HANDLE StandardHandle(int fd) noexcept {
    static constinit std::atomic<HANDLE> handles[3];
    std::atomic<HANDLE>& known = handles[fd];
    HANDLE handle = known.load();
    if (handle || fcntl(fd, F_GETFD) == -1) return handle;
    // A terminal's three descriptors may all be open for both directions: what counts is what each is for.
    const DWORD rights = fd == STDIN_FILENO ? FILE_READ_DATA : AllWriteRights;
    HANDLE made = nullptr;
    if (DWORD code = NewHandle<StandardFile>(made, rights, fd)) return Fail(code, HANDLE());
    if (known.compare_exchange_strong(handle, made)) return made;
    CloseHandleOf(made, &FileObject::Kind);
    return handle;
}

}  // namespace

HANDLE CreateFileW(const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                   DWORD disposition, DWORD flagsAndAttributes, HANDLE templateFile) noexcept {
    if (DWORD code = FaultDue("CreateFileW")) return Fail(code, INVALID_HANDLE_VALUE);
    const NativePath path(name);
    if (path.Code()) return Fail(path.Code(), INVALID_HANDLE_VALUE);
    HANDLE handle = nullptr;
    bool existed = false;
    const DWORD code = WithMemory([&] {
        Opening opening;
        if (DWORD wrong =
                ReadOpening(access, share, security, disposition, flagsAndAttributes, templateFile, opening))
            return wrong;
        const DWORD failed = OpenFile(path.c_str(), opening, handle, existed);
        if (failed != ERROR_ACCESS_DENIED || !(access & MAXIMUM_ALLOWED)) return failed;
        opening.rights = DataRights((access & ~MAXIMUM_ALLOWED) | GENERIC_READ);
        return OpenFile(path.c_str(), opening, handle, existed);
    });
    if (code) return Fail(code, INVALID_HANDLE_VALUE);
    if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
        SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD size, DWORD* got, OVERLAPPED* overlapped) noexcept {
    if (DWORD code = FaultDue("ReadFile")) return Fail(code, FALSE);
    const HandleRef<FileObject> object(file);
    if (DWORD code = CheckTransfer(object, overlapped, got, FILE_READ_DATA)) return Fail(code, FALSE);
    const DWORD code = TransferAll(size, object->IsPlain(), *got, [&](DWORD done, DWORD left) -> ssize_t {
        if (done != 0 && done == object->FixedSize()) return 0;  // the kernel would say the same
        return read(object->Fd(), static_cast<char*>(buffer) + done, left);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD size, DWORD* written, OVERLAPPED* overlapped) noexcept {
    if (DWORD code = FaultDue("WriteFile")) return Fail(code, FALSE);
    const HandleRef<FileObject> object(file);
    if (DWORD code = CheckTransfer(object, overlapped, written, AllWriteRights)) return Fail(code, FALSE);
    if (!IsReadable(buffer, size)) return Fail(ERROR_NOACCESS, FALSE);
    const DWORD code = TransferAll(size, true, *written, [&](DWORD done, DWORD left) {
        const char* const rest = static_cast<const char*>(buffer) + done;
        return object->IsPlain() ? Durable::Write(object->Fd(), rest, left)
                                 : WriteQuietly(object->Fd(), rest, left);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* position, DWORD method) noexcept {
    if (DWORD code = FaultDue("SetFilePointerEx")) return Fail(code, FALSE);
    constexpr int Origins[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    const HandleRef<FileObject> object(file);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (method >= std::size(Origins)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const off_t at = lseek(object->Fd(), distance.QuadPart, Origins[method]);
    if (at < 0) return Fail(errno == EINVAL ? ERROR_NEGATIVE_SEEK : CodeFromErrno(errno), FALSE);
    if (position) position->QuadPart = at;
    return TRUE;
}

BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER* size) noexcept {
    if (DWORD code = FaultDue("GetFileSizeEx")) return Fail(code, FALSE);
    const HandleRef<FileObject> object(file);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    struct stat info;
    if (fstat(object->Fd(), &info) != 0) return Fail(CodeFromErrno(errno), FALSE);
    size->QuadPart = S_ISREG(info.st_mode) ? info.st_size : 0;
    return TRUE;
}

BOOL SetEndOfFile(HANDLE file) noexcept {
    if (DWORD code = FaultDue("SetEndOfFile")) return Fail(code, FALSE);
    const HandleRef<FileObject> object(file);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!(object.Access() & AllWriteRights)) return Fail(ERROR_ACCESS_DENIED, FALSE);
    const off_t end = lseek(object->Fd(), 0, SEEK_CUR);
    const DWORD code = end < 0 ? CodeFromErrno(errno) : SetSize(object->Fd(), end, object->WritesThrough());
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL LockFile(HANDLE file, DWORD offsetLow, DWORD offsetHigh, DWORD sizeLow, DWORD sizeHigh) noexcept {
    if (DWORD code = FaultDue("LockFile")) return Fail(code, FALSE);
    const DWORD code = LockRange(file, Joined(offsetLow, offsetHigh), Joined(sizeLow, sizeHigh), 0);
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL UnlockFile(HANDLE file, DWORD offsetLow, DWORD offsetHigh, DWORD sizeLow, DWORD sizeHigh) noexcept {
    if (DWORD code = FaultDue("UnlockFile")) return Fail(code, FALSE);
    const HandleRef<FileObject> object(file);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    const DWORD code =
        object->Locks().Unlock(object->Fd(), Joined(offsetLow, offsetHigh), Joined(sizeLow, sizeHigh));
    return code ? Fail(code, FALSE) : TRUE;
}

DWORD LockFileRange(HANDLE file, ULONGLONG offset, ULONGLONG size, DWORD ms) noexcept {
    if (DWORD code = FaultDue("LockFile")) return code;
    return LockRange(file, offset, size, ms == 0 ? 0 : DeadlineAfter(ms));
}

DWORD ReadFileAt(HANDLE file, ULONGLONG offset, void* buffer, DWORD size, DWORD& got) noexcept {
    if (DWORD code = FaultDue("ReadFile")) return code;
    const HandleRef<FileObject> object(file);
    if (DWORD code = CheckTransfer(object, nullptr, &got, FILE_READ_DATA)) return code;
    return TransferAll(size, true, got, [&](DWORD done, DWORD left) {
        return pread(object->Fd(), static_cast<char*>(buffer) + done, left,
                     static_cast<off_t>(offset + done));
    });
}

DWORD WriteFileAt(HANDLE file, ULONGLONG offset, const void* bytes, DWORD size, DWORD& written) noexcept {
    if (DWORD code = FaultDue("WriteFile")) return code;
    const HandleRef<FileObject> object(file);
    if (DWORD code = CheckTransfer(object, nullptr, &written, AllWriteRights)) return code;
    return TransferAll(size, true, written, [&](DWORD done, DWORD left) {
        return Durable::WriteAt(object->Fd(), static_cast<const char*>(bytes) + done, left,
                                static_cast<off_t>(offset + done));
    });
}

DWORD SetFileSize(HANDLE file, ULONGLONG size) noexcept {
    if (DWORD code = FaultDue("SetEndOfFile")) return code;
    const HandleRef<FileObject> object(file);
    if (!object) return ERROR_INVALID_HANDLE;
    if (!(object.Access() & AllWriteRights)) return ERROR_ACCESS_DENIED;
    return SetSize(object->Fd(), static_cast<off_t>(size), object->WritesThrough());
}

DWORD SizeOfFileAt(HANDLE file, const wchar_t* name, bool, ULONGLONG& size) noexcept {
    if (DWORD code = FaultDue("GetFileSizeEx")) return code;
    const HandleRef<FileObject> object(file);
    if (!object) return ERROR_INVALID_HANDLE;
    const NativePath path(name);
    struct stat info;
    // As a rule the name tells all there is to know.
    if (path.Code() == ERROR_SUCCESS && stat(path.c_str(), &info) == 0) {
        if (Durable::FileIdentity{info.st_dev, info.st_ino} != object->Id()) return ERROR_FILE_INVALID;
    } else if (path.Code() == ERROR_SUCCESS && (errno == ENOENT || errno == ENOTDIR)) {
        return ERROR_FILE_INVALID;
    } else if (fstat(object->Fd(), &info) != 0) {
        return CodeFromErrno(errno);
    }
    if (info.st_nlink == 0) return ERROR_FILE_INVALID;
    size = static_cast<ULONGLONG>(info.st_size);
    return ERROR_SUCCESS;
}

BOOL FlushFileBuffers(HANDLE file) noexcept {
    if (DWORD code = FaultDue("FlushFileBuffers")) return Fail(code, FALSE);
    const HandleRef<FileObject> object(file);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!(object.Access() & AllWriteRights)) return Fail(ERROR_ACCESS_DENIED, FALSE);
    if (object->WritesThrough()) return TRUE;
    // What has no disk behind it, a terminal for one, is no handle for this call.
    if (Durable::Sync(object->Fd()) != 0)
        return Fail(errno == EINVAL ? ERROR_INVALID_HANDLE : CodeFromErrno(errno), FALSE);
    return TRUE;
}

DWORD GetFileAttributesW(const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("GetFileAttributesW")) return Fail(code, INVALID_FILE_ATTRIBUTES);
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (DWORD code = DescribePath(name, data)) return Fail(code, INVALID_FILE_ATTRIBUTES);
    return data.dwFileAttributes;
}

BOOL GetFileAttributesExW(const wchar_t* name, GET_FILEEX_INFO_LEVELS level, void* data) noexcept {
    if (DWORD code = FaultDue("GetFileAttributesExW")) return Fail(code, FALSE);
    if (level != GetFileExInfoStandard) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (DWORD code = DescribePath(name, *static_cast<WIN32_FILE_ATTRIBUTE_DATA*>(data)))
        return Fail(code, FALSE);
    return TRUE;
}

BOOL SetFileAttributesW(const wchar_t* name, DWORD attributes) noexcept {
    if (DWORD code = FaultDue("SetFileAttributesW")) return Fail(code, FALSE);
    const NativePath path(name);
    const DWORD code = path.Code() ? path.Code() : SetAttributes(path.c_str(), attributes);
    return code ? Fail(code, FALSE) : TRUE;
}

HANDLE FindFirstFileW(const wchar_t* pattern, WIN32_FIND_DATAW* data) noexcept {
    if (DWORD code = FaultDue("FindFirstFileW")) return Fail(code, INVALID_HANDLE_VALUE);
    HANDLE handle = nullptr;
    const DWORD code = WithMemory([&] { return FindFirst(pattern, *data, handle); });
    return code ? Fail(code, INVALID_HANDLE_VALUE) : handle;
}

BOOL FindNextFileW(HANDLE find, WIN32_FIND_DATAW* data) noexcept {
    if (DWORD code = FaultDue("FindNextFileW")) return Fail(code, FALSE);
    const HandleRef<FindObject> object(find);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    const DWORD code = WithMemory([&] { return object->Next(*data); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL FindClose(HANDLE find) noexcept {
    if (DWORD code = CloseHandleOf(find, &FindObject::Kind)) return Fail(code, FALSE);
    return TRUE;
}

BOOL CreateDirectoryW(const wchar_t* name, SECURITY_ATTRIBUTES* security) noexcept {
    if (DWORD code = FaultDue("CreateDirectoryW")) return Fail(code, FALSE);
    const NativePath path(name);
    if (path.Code()) return Fail(path.Code(), FALSE);
    if (security && security->lpSecurityDescriptor) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    if (Durable::MakeFolder(AT_FDCWD, path.c_str(), 0777) != 0)
        return Fail(errno == ENOENT ? ERROR_PATH_NOT_FOUND : CodeFromErrno(errno), FALSE);
    return TRUE;
}

BOOL RemoveDirectoryW(const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("RemoveDirectoryW")) return Fail(code, FALSE);
    const NativePath path(name);
    const DWORD code = path.Code() ? path.Code() : RemoveFolder(path.c_str());
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL DeleteFileW(const wchar_t* name) noexcept {
    if (DWORD code = FaultDue("DeleteFileW")) return Fail(code, FALSE);
    const NativePath path(name);
    const DWORD code = path.Code() ? path.Code() : RemoveFile(path.c_str());
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL MoveFileExW(const wchar_t* from, const wchar_t* to, DWORD flags) noexcept {
    if (DWORD code = FaultDue("MoveFileExW")) return Fail(code, FALSE);
    constexpr DWORD Offered = MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED | MOVEFILE_WRITE_THROUGH;
    if (flags & ~Offered) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    const NativePath fromPath(from), toPath(to);
    if (DWORD code = fromPath.Code() ? fromPath.Code() : toPath.Code()) return Fail(code, FALSE);
    const DWORD code = WithMemory([&] { return MoveFile(fromPath, toPath, flags); });
    return code ? Fail(code, FALSE) : TRUE;
}

DWORD GetFullPathNameW(const wchar_t* name, DWORD size, wchar_t* buffer, wchar_t** namePart) noexcept {
    if (DWORD code = FaultDue("GetFullPathNameW")) return Fail(code, DWORD{0});
    if (!name || !*name) return Fail(ERROR_INVALID_NAME, DWORD{0});
    std::wstring full;
    if (DWORD code = WithMemory([&] { return FullPath(name, full); })) return Fail(code, DWORD{0});
    const std::size_t last = full.rfind(L'/') + 1;
    if (!CopyOut(full, buffer, size)) return static_cast<DWORD>(full.size() + 1);
    if (namePart) *namePart = last < full.size() ? buffer + last : nullptr;
    return static_cast<DWORD>(full.size());
}

DWORD GetTempPathW(DWORD size, wchar_t* buffer) noexcept {
    if (DWORD code = FaultDue("GetTempPathW")) return Fail(code, DWORD{0});
    try {
        std::string path = TrustedEnvironmentVariable("TMPDIR").value_or("");
        if (path.empty()) path = "/tmp";
        if (path.back() != '/') path += '/';
        const std::wstring wide = NameToWide(path);
        return static_cast<DWORD>(CopyOut(wide, buffer, size) ? wide.size() : wide.size() + 1);
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
}

HANDLE GetStdHandle(DWORD number) noexcept {
    switch (number) {
        case STD_INPUT_HANDLE:
            return StandardHandle(STDIN_FILENO);
        case STD_OUTPUT_HANDLE:
            return StandardHandle(STDOUT_FILENO);
        case STD_ERROR_HANDLE:
            return StandardHandle(STDERR_FILENO);
        default:
            return Fail(ERROR_INVALID_HANDLE, INVALID_HANDLE_VALUE);
    }
}

BOOL GetConsoleMode(HANDLE console, DWORD* mode) noexcept {
    const HandleRef<FileObject> object(console);
    termios settings;
    if (!object || tcgetattr(object->Fd(), &settings) != 0) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (object.Access() & FILE_READ_DATA)
        *mode = (settings.c_lflag & ISIG ? ENABLE_PROCESSED_INPUT : 0) |
                (settings.c_lflag & ICANON ? ENABLE_LINE_INPUT : 0) |
                (settings.c_lflag & ECHO ? ENABLE_ECHO_INPUT : 0);
    else
        *mode = ENABLE_PROCESSED_OUTPUT;
    return TRUE;
}

BOOL WriteConsoleW(HANDLE console, const void* text, DWORD length, DWORD* written, void* reserved) noexcept {
    if (DWORD code = FaultDue("WriteConsoleW")) return Fail(code, FALSE);
    DWORD mode = 0;
    if (reserved) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (!GetConsoleMode(console, &mode)) return FALSE;
    try {
        const std::string bytes = ToUtf8({static_cast<const wchar_t*>(text), length});
        for (std::size_t done = 0; done < bytes.size();) {
            DWORD part = 0;
            if (!WriteFile(console, bytes.data() + done, static_cast<DWORD>(bytes.size() - done), &part,
                           nullptr))
                return FALSE;
            done += part;
        }
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    }
    if (written) *written = length;
    return TRUE;
}

}  // namespace Quellan::Platform
