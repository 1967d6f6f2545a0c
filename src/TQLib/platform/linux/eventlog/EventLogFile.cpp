#include "TQLib/platform/linux/eventlog/EventLogFile.h"

#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/State.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/registry/Registry.h"
#include "TQLib/platform/linux/registry/RegistryStore.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace Quellan::Platform {

namespace {

constexpr unsigned FileMode = 0640;
constexpr std::size_t ReadSize = 64 * 1024;
constexpr std::size_t FirstBytesSize = 256;
// Far beyond the records, so that the lock is no lock on data.
constexpr off_t LockedByte = off_t{1} << 62;
constexpr DWORD DefaultMostBytes = DWORD{20} << 20;
constexpr DWORD LeastMostBytes = DWORD{64} << 10;

// What the administrator wants, as on the platform.
off_t MostBytesOf(std::string_view log) {
    RegistryKey root, key;
    RegistryValue value;
    const std::wstring path = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\" + ToWide(log);
    DWORD most = DefaultMostBytes;
    if (OpenRegistryRoot(RegistryRoot::Machine, false, root) == ERROR_SUCCESS &&
        OpenRegistryKey(root, path, key) == ERROR_SUCCESS &&
        ReadRegistryValue(key, L"MaxSize", value) == ERROR_SUCCESS && value.type == REG_DWORD &&
        value.data.size() == sizeof most)
        std::memcpy(&most, value.data.data(), sizeof most);
    return std::max(most, LeastMostBytes);
}

DWORD SizeOf(int fd, off_t& size) noexcept {
    struct stat info;
    if (fstat(fd, &info) != 0) return CodeFromErrno(errno);
    size = info.st_size;
    return ERROR_SUCCESS;
}

// Fills `text` from `begin` on; it becomes shorter where the file ends.
DWORD ReadAt(int fd, off_t begin, std::string& text) noexcept {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t got = Retry([&] {
            return pread(fd, text.data() + done, text.size() - done, begin + static_cast<off_t>(done));
        });
        if (got < 0) return CodeFromErrno(errno);
        if (got == 0) break;
        done += static_cast<std::size_t>(got);
    }
    text.resize(done);
    return ERROR_SUCCESS;
}

struct Tail {
    DWORD lastNumber = 0;
    off_t lastBegin = 0;  // of this record
    bool torn = false;    // a writer did not get to the end of its line
};

// Looks from the end backwards for the last whole record, over lines that were torn.
DWORD ReadTail(int fd, off_t size, Tail& tail) {
    for (std::size_t length = 4096;; length *= 4) {
        const off_t begin = std::max<off_t>(0, size - static_cast<off_t>(length));
        std::string text(static_cast<std::size_t>(size - begin), '\0');
        if (DWORD code = ReadAt(fd, begin, text)) return code;
        tail.torn = !text.empty() && text.back() != '\n';
        std::string_view rest(text);
        while (!rest.empty()) {
            if (rest.back() == '\n') rest.remove_suffix(1);
            const std::size_t end = rest.rfind('\n');
            if (end == rest.npos && begin > 0) break;  // this line begins further ahead
            const std::size_t lineBegin = end == rest.npos ? 0 : end + 1;
            if (const auto record = ParseEvent(rest.substr(lineBegin))) {
                tail.lastNumber = record->number;
                tail.lastBegin = begin + static_cast<off_t>(lineBegin);
                return ERROR_SUCCESS;
            }
            rest = rest.substr(0, lineBegin);
        }
        if (begin == 0) return ERROR_SUCCESS;
    }
}

// Copies what lies from `begin` to `end` into a new file, which lasts when its folder was synced.
DWORD CopyTo(const Descriptor& to, int from, off_t begin, off_t end) {
    for (off_t at = begin; at < end;) {
        std::string block(std::min<std::size_t>(ReadSize, static_cast<std::size_t>(end - at)), '\0');
        if (DWORD code = ReadAt(from, at, block)) return code;
        const ssize_t put = Durable::Write(to.Get(), block.data(), block.size());
        if (put <= 0) return put < 0 ? CodeFromErrno(errno) : ERROR_DISK_FULL;
        at += put;
    }
    return Durable::Sync(to.Get()) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

constexpr int NewFileFlags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY;

// Whoever looks for the copy finds all of it or nothing.
DWORD Backup(const std::string& path, int from, off_t size) {
    const std::string staged = path + ".tqlib-new";
    Durable::Unlink(AT_FDCWD, staged.c_str());  // what a loss of power left of it
    const Descriptor to = Durable::Open(AT_FDCWD, staged.c_str(), NewFileFlags, FileMode);
    if (!to) return CodeFromErrno(errno, path.c_str());
    DWORD code = CopyTo(to, from, 0, size);
    const auto put = [&] {
        return Durable::Rename(AT_FDCWD, staged.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0;
    };
    if (!code && !put()) code = CodeFromErrno(errno);
    if (code) Durable::Unlink(AT_FDCWD, staged.c_str());
    if (!code && Durable::SyncFolderOf(path) != 0) code = CodeFromErrno(errno);
    return code;
}

}  // namespace

std::string_view EventLogNamed(std::wstring_view name) noexcept {
    if (CompareOrdinal(name, L"System", true) == 0) return "System";
    if (CompareOrdinal(name, L"Security", true) == 0) return "Security";
    return "Application";
}

// The exclusive right to change the file, of this open file description among all of them. It ends with the
// process.
class EventLogFile::ChangeLock {
  public:
    explicit ChangeLock(int fd) noexcept : m_fd(fd), m_code(Set(F_WRLCK)) {}
    ~ChangeLock() {
        if (m_code == ERROR_SUCCESS) Set(F_UNLCK);
    }
    ChangeLock(const ChangeLock&) = delete;
    ChangeLock& operator=(const ChangeLock&) = delete;

    DWORD Code() const noexcept { return m_code; }

  private:
    DWORD Set(short type) const noexcept {
        struct flock lock {};
        lock.l_type = type;
        lock.l_whence = SEEK_SET;
        lock.l_start = LockedByte;
        lock.l_len = 1;
        return Retry([&] { return fcntl(m_fd, F_OFD_SETLKW, &lock); }) == 0 ? ERROR_SUCCESS
                                                                            : CodeFromErrno(errno);
    }

    const int m_fd;
    const DWORD m_code;
};

DWORD EventLogPlace::Open(std::string_view log, EventLogPlace& place) {
    EventLogPlace opened;
    opened.fileName = std::string(log) + ".jsonl";
    opened.mostBytes = MostBytesOf(log);
    if (DWORD code = OpenStateFolder(StateKind::Lasting, "eventlog", opened.folder)) return code;
    if (DWORD code = OpenStateFile(opened.folder, opened.fileName.c_str(), FileMode, opened.file))
        return code;
    place = std::move(opened);
    return ERROR_SUCCESS;
}

DWORD EventLogFile::CompareWithName(bool& isReplaced) const noexcept {
    struct stat own, named;
    if (fstat(Fd(), &own) != 0) return CodeFromErrno(errno);
    const bool isThere =
        fstatat(m_place.folder.Get(), m_place.fileName.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0;
    if (!isThere && errno != ENOENT) return CodeFromErrno(errno);
    isReplaced = !isThere || own.st_ino != named.st_ino || own.st_dev != named.st_dev;
    return ERROR_SUCCESS;
}

DWORD EventLogFile::FollowName() {
    Descriptor opened;
    if (DWORD code = OpenStateFile(m_place.folder, m_place.fileName.c_str(), FileMode, opened)) return code;
    auto file = std::make_unique<ProcessDescriptor>(std::move(opened));
    const WithoutFork withoutFork;
    m_file.swap(file);
    return ERROR_SUCCESS;
}

// Of the file that has the name: another one may have got it before the lock was had.
DWORD EventLogFile::LockChanges(std::optional<ChangeLock>& lock) {
    if (!m_file->OwnsLocks())
        if (DWORD code = FollowName()) return code;
    for (;;) {
        lock.emplace(Fd());
        if (lock->Code()) return lock->Code();
        bool isReplaced = false;
        if (DWORD code = CompareWithName(isReplaced)) return code;
        if (!isReplaced) return ERROR_SUCCESS;
        lock.reset();
        if (DWORD code = FollowName()) return code;
    }
}

DWORD EventLogFile::Append(EventRecord& record) {
    const Guard threads(m_lock);
    std::optional<ChangeLock> lock;
    for (bool madeRoom = false;; madeRoom = true) {
        if (DWORD code = LockChanges(lock)) return code;
        off_t size = 0;
        Tail tail;
        if (DWORD code = SizeOf(Fd(), size)) return code;
        if (DWORD code = ReadTail(Fd(), size, tail)) return code;
        record.number = tail.lastNumber + 1;
        std::string text(tail.torn ? "\n" : "");
        text.append(FormatEvent(record)).append("\n");
        const bool fits = size + static_cast<off_t>(text.size()) <= m_place.mostBytes;
        if (fits || madeRoom) return Put(text, size);
        if (DWORD code = KeepNewest(size, tail.lastBegin)) return code;
    }
}

DWORD EventLogFile::Put(std::string_view text, off_t size) noexcept {
    // The name of a file that was empty may not be on the disk yet.
    if (size == 0 && Durable::Sync(m_place.folder.Get()) != 0) return CodeFromErrno(errno);
    const ssize_t put = Durable::WriteAt(Fd(), text.data(), text.size(), size);
    const bool isWhole = put == static_cast<ssize_t>(text.size());
    if (isWhole && Durable::Sync(Fd()) == 0) return ERROR_SUCCESS;
    const DWORD code = isWhole || put < 0 ? CodeFromErrno(errno) : ERROR_DISK_FULL;
    // Without this the next writer would mend it, and readers pass over it.
    if (put > 0 && Durable::Truncate(Fd(), size) != 0) return CodeFromErrno(errno);
    return code;
}

// Puts a file with the last records in the place of this one: half of what the log may have, and at least the
// last record, whose number goes on.
DWORD EventLogFile::KeepNewest(off_t size, off_t lastBegin) {
    off_t begin = std::max<off_t>(0, size - m_place.mostBytes / 2);
    for (bool inLine = true; inLine && begin < lastBegin;) {
        std::string block(ReadSize, '\0');
        if (DWORD code = ReadAt(Fd(), begin, block)) return code;
        const std::size_t end = block.find('\n');
        inLine = end == block.npos;
        begin += static_cast<off_t>(inLine ? block.size() : end + 1);
    }
    begin = std::min(begin, lastBegin);
    const std::string staged = m_place.fileName + ".new";
    Durable::Unlink(m_place.folder.Get(), staged.c_str());  // of a process that was killed
    const Descriptor kept =
        Durable::Open(m_place.folder.Get(), staged.c_str(), NewFileFlags | O_NOFOLLOW, FileMode);
    if (!kept) return CodeFromErrno(errno);
    DWORD code = CopyTo(kept, Fd(), begin, size);
    const auto put = [&] {
        const int folder = m_place.folder.Get();
        return Durable::Rename(folder, staged.c_str(), folder, m_place.fileName.c_str()) == 0;
    };
    if (!code && !put()) code = CodeFromErrno(errno);
    if (code) Durable::Unlink(m_place.folder.Get(), staged.c_str());
    if (!code && Durable::Sync(m_place.folder.Get()) != 0) code = CodeFromErrno(errno);
    return code;
}

DWORD EventLogFile::Clear(const char* backup) {
    const Guard threads(m_lock);
    std::optional<ChangeLock> lock;
    if (DWORD code = LockChanges(lock)) return code;
    off_t size = 0;
    if (DWORD code = SizeOf(Fd(), size)) return code;
    if (backup)
        if (DWORD code = Backup(backup, Fd(), size)) return code;
    return Durable::Truncate(Fd(), 0) == 0 && Durable::Sync(Fd()) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

DWORD EventLogReader::Refresh(bool& changed) {
    const Guard threads(m_lock);
    bool isReplaced = false;
    if (DWORD code = CompareWithName(isReplaced)) return code;
    if (isReplaced)
        if (DWORD code = FollowName()) return code;
    off_t size = 0;
    if (DWORD code = SizeOf(Fd(), size)) return code;
    std::string first(m_firstBytes.size(), '\0');
    if (DWORD code = ReadAt(Fd(), 0, first)) return code;
    changed = isReplaced || size < m_scanned || first != m_firstBytes;
    if (changed) {
        const WithoutFork withoutFork;
        m_index.clear();
        m_scanned = 0;
        m_firstBytes.clear();
    }
    return Scan(size);
}

DWORD EventLogReader::Scan(off_t end) {
    std::string text;  // from m_scanned on
    for (off_t readTo = m_scanned; readTo < end;) {
        std::string block(std::min<std::size_t>(ReadSize, static_cast<std::size_t>(end - readTo)), '\0');
        if (DWORD code = ReadAt(Fd(), readTo, block)) return code;
        if (block.empty()) break;  // cleared meanwhile: the next look sees it
        if (m_scanned == 0 && text.empty()) {
            std::string first = block.substr(0, FirstBytesSize);
            const WithoutFork withoutFork;
            m_firstBytes.swap(first);
        }
        readTo += static_cast<off_t>(block.size());
        text += block;
        std::size_t begin = 0;
        std::vector<Line> found;
        for (std::size_t stop = text.find('\n'); stop != text.npos; stop = text.find('\n', begin)) {
            const std::string_view line = std::string_view(text).substr(begin, stop - begin);
            if (const auto record = ParseEvent(line))
                found.push_back({record->number, m_scanned + static_cast<off_t>(begin), line.size()});
            begin = stop + 1;
        }
        text.erase(0, begin);
        const WithoutFork withoutFork;
        m_index.insert(m_index.end(), found.begin(), found.end());
        m_scanned += static_cast<off_t>(begin);
    }
    return ERROR_SUCCESS;
}

DWORD EventLogReader::Read(std::size_t place, EventRecord& record) {
    const Guard threads(m_lock);
    const Line& line = m_index[place];
    std::string text(line.size, '\0');
    if (DWORD code = ReadAt(Fd(), line.begin, text)) return code;
    auto parsed = ParseEvent(text);
    if (!parsed || parsed->number != line.number) return ERROR_EVENTLOG_FILE_CORRUPT;
    record = std::move(*parsed);
    return ERROR_SUCCESS;
}

std::size_t EventLogReader::Find(DWORD number) const noexcept {
    const Guard lock(m_lock);
    const auto found = std::ranges::lower_bound(m_index, number, {}, &Line::number);
    const bool exact = found != m_index.end() && found->number == number;
    return exact ? static_cast<std::size_t>(found - m_index.begin()) : m_index.size();
}

}  // namespace Quellan::Platform
