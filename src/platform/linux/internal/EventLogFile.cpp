#include "platform/linux/internal/EventLogFile.h"

#include "platform/linux/Errors.h"
#include "platform/linux/internal/Case.h"
#include "platform/linux/internal/Errno.h"
#include "platform/linux/internal/State.h"
#include "platform/linux/internal/Wide.h"

#include <algorithm>
#include <sys/stat.h>

namespace Quellan::Corvel::Platform {

namespace {

constexpr unsigned FileMode = 0640;
constexpr std::size_t ReadSize = 64 * 1024;
constexpr std::size_t FirstBytesSize = 256;
// Far beyond the records, so that the lock is no lock on data.
constexpr off_t LockedByte = off_t{1} << 62;

// The exclusive right to change the file, of this open file description among all of them. It ends with the
// process.
class ChangeLock {
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
    bool torn = false;  // a writer did not get to the end of its line
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
                return ERROR_SUCCESS;
            }
            rest = rest.substr(0, lineBegin);
        }
        if (begin == 0) return ERROR_SUCCESS;
    }
}

DWORD CopyTo(const char* path, int from, off_t size) {
    const Descriptor to(open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, FileMode));
    if (!to) return CodeFromErrno(errno, path);
    for (off_t at = 0; at < size;) {
        std::string block(std::min<std::size_t>(ReadSize, static_cast<std::size_t>(size - at)), '\0');
        if (DWORD code = ReadAt(from, at, block)) return code;
        const ssize_t put = Retry([&] { return write(to.Get(), block.data(), block.size()); });
        if (put <= 0) return put < 0 ? CodeFromErrno(errno) : ERROR_DISK_FULL;
        at += put;
    }
    return fsync(to.Get()) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

}  // namespace

std::string_view EventLogNamed(std::wstring_view name) noexcept {
    if (CompareOrdinal(name, L"System", true) == 0) return "System";
    if (CompareOrdinal(name, L"Security", true) == 0) return "Security";
    return "Application";
}

DWORD EventLogFile::Open(std::string_view log, Descriptor& file) {
    Descriptor folder;
    if (DWORD code = OpenStateFolder(StateKind::Lasting, "eventlog", folder)) return code;
    return OpenStateFile(folder, (std::string(log) + ".jsonl").c_str(), FileMode, file);
}

DWORD EventLogFile::Append(EventRecord& record) {
    const std::scoped_lock threads(m_lock);
    const ChangeLock lock(Fd());
    if (lock.Code()) return lock.Code();
    off_t size = 0;
    Tail tail;
    if (DWORD code = SizeOf(Fd(), size)) return code;
    if (DWORD code = ReadTail(Fd(), size, tail)) return code;
    record.number = tail.lastNumber + 1;
    std::string text(tail.torn ? "\n" : "");
    text.append(FormatEvent(record)).append("\n");
    const ssize_t put = Retry([&] { return pwrite(Fd(), text.data(), text.size(), size); });
    if (put == static_cast<ssize_t>(text.size())) return ERROR_SUCCESS;
    const DWORD code = put < 0 ? CodeFromErrno(errno) : ERROR_DISK_FULL;
    // Without this the next writer would mend it, and readers pass over it.
    if (put > 0 && ftruncate(Fd(), size) != 0) return CodeFromErrno(errno);
    return code;
}

DWORD EventLogFile::Clear(const char* backup) {
    const std::scoped_lock threads(m_lock);
    const ChangeLock lock(Fd());
    if (lock.Code()) return lock.Code();
    off_t size = 0;
    if (DWORD code = SizeOf(Fd(), size)) return code;
    if (backup) {
        const DWORD code = CopyTo(backup, Fd(), size);
        if (code && code != ERROR_ALREADY_EXISTS) unlink(backup);
        if (code) return code;
    }
    return ftruncate(Fd(), 0) == 0 ? ERROR_SUCCESS : CodeFromErrno(errno);
}

DWORD EventLogReader::Refresh(bool& changed) {
    off_t size = 0;
    if (DWORD code = SizeOf(Fd(), size)) return code;
    std::string first(m_firstBytes.size(), '\0');
    if (DWORD code = ReadAt(Fd(), 0, first)) return code;
    changed = size < m_scanned || first != m_firstBytes;
    if (changed) {
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
        if (m_scanned == 0 && text.empty()) m_firstBytes = block.substr(0, FirstBytesSize);
        readTo += static_cast<off_t>(block.size());
        text += block;
        std::size_t begin = 0;
        for (std::size_t stop = text.find('\n'); stop != text.npos; stop = text.find('\n', begin)) {
            const std::string_view line = std::string_view(text).substr(begin, stop - begin);
            if (const auto record = ParseEvent(line))
                m_index.push_back({record->number, m_scanned + static_cast<off_t>(begin), line.size()});
            begin = stop + 1;
        }
        text.erase(0, begin);
        m_scanned += static_cast<off_t>(begin);
    }
    return ERROR_SUCCESS;
}

DWORD EventLogReader::Read(std::size_t place, EventRecord& record) {
    const Line& line = m_index[place];
    std::string text(line.size, '\0');
    if (DWORD code = ReadAt(Fd(), line.begin, text)) return code;
    auto parsed = ParseEvent(text);
    if (!parsed || parsed->number != line.number) return ERROR_EVENTLOG_FILE_CORRUPT;
    record = std::move(*parsed);
    return ERROR_SUCCESS;
}

std::size_t EventLogReader::Find(DWORD number) const noexcept {
    const auto found = std::ranges::lower_bound(m_index, number, {}, &Line::number);
    const bool exact = found != m_index.end() && found->number == number;
    return exact ? static_cast<std::size_t>(found - m_index.begin()) : m_index.size();
}

}  // namespace Quellan::Corvel::Platform
