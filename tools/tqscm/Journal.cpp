#include "Journal.h"

#include "Print.h"
#include "TQLib/platform/linux/base/Durable.h"

#include <array>
#include <cstring>
#include <ctime>
#include <optional>
#include <sstream>
#include <sys/stat.h>

namespace tqscm {

using namespace Quellan::Platform;

namespace {

constexpr DWORD JournalVersion = 2;
// By which it may grow until it is written anew.
constexpr std::size_t MostGrowth = std::size_t{1} << 20;
// Taken ahead, for changes that come when the disk is full.
constexpr std::size_t Reserve = std::size_t{16} << 10;

// No bytes of a file that cannot be read; an errno then.
int ReadFile(const std::string& path, std::string& bytes) {
    bytes.clear();
    const Descriptor file(Retry([&] { return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
    if (!file) return errno;
    char part[4096];
    ssize_t size = 0;
    while ((size = Retry([&] { return read(file.Get(), part, sizeof part); })) > 0)
        bytes.append(part, static_cast<std::size_t>(size));
    return size < 0 ? errno : 0;
}

// Empty where it cannot be read now.
std::string BootId() {
    std::string boot;
    ReadFile("/proc/sys/kernel/random/boot_id", boot);
    return boot;
}

struct Header {
    DWORD version = JournalVersion;
    std::string boot = BootId();

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.version);
        visit(fields.boot);
    }
};

struct Record {
    std::string name;
    DWORD isThere = 0;  // otherwise it was removed
    JournalEntry entry;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit) {
        visit(fields.name);
        visit(fields.isThere);
        visit(fields.entry);
    }
};

// The usual one of 32 bits (reflected, polynomial 0xEDB88320).
DWORD Checksum(std::string_view bytes) {
    static constexpr auto Table = [] {
        std::array<DWORD, 256> table{};
        for (DWORD i = 0; i < table.size(); ++i) {
            DWORD value = i;
            for (int bit = 0; bit < 8; ++bit)
                value = value >> 1 ^ (value & 1 ? 0xEDB88320 : 0);
            table[i] = value;
        }
        return table;
    }();
    DWORD sum = ~DWORD{0};
    for (const char byte : bytes)
        sum = sum >> 8 ^ Table[(sum ^ static_cast<unsigned char>(byte)) & 0xFF];
    return ~sum;
}

// A record is known by itself, wherever it begins: a mark, its size, its checksum, its bytes.
constexpr std::string_view RecordMark = "TQJ2";
constexpr std::size_t FrameSize = RecordMark.size() + 2 * sizeof(DWORD);

template <class Fields>
std::string Format(const Fields& fields) {
    ServiceFields::Writer write, frame;
    write(fields);
    const std::string bytes = write.Take();
    frame(static_cast<DWORD>(bytes.size()));
    frame(Checksum(bytes));
    return std::string(RecordMark) + frame.Take() + bytes;
}

// Takes the record with which `rest` begins.
template <class Fields>
bool Take(std::string_view& rest, Fields& fields) {
    if (rest.size() < FrameSize || !rest.starts_with(RecordMark)) return false;
    DWORD size = 0, sum = 0;
    ServiceFields::Reader frame(rest.substr(RecordMark.size(), FrameSize - RecordMark.size()));
    frame(size);
    frame(sum);
    const std::string_view bytes = rest.substr(FrameSize);
    if (bytes.size() < size || Checksum(bytes.substr(0, size)) != sum) return false;
    ServiceFields::Reader read(bytes.substr(0, size));
    read(fields);
    if (read.IsComplete()) rest = bytes.substr(size);
    return read.IsComplete();
}

enum class Finding { Whole, Damaged, OfAnotherBoot };

Finding Parse(std::string_view bytes, Journal::Entries& entries) {
    Header header;
    const Header now;
    Finding finding = Finding::Whole;
    if (!Take(bytes, header) || header.boot.empty() || now.boot.empty())
        finding = Finding::Damaged;
    else if (header.version != now.version || header.boot != now.boot)
        return Finding::OfAnotherBoot;
    while (!bytes.empty()) {
        if (Record record; Take(bytes, record)) {
            if (record.isThere)
                entries[record.name] = std::move(record.entry);
            else
                entries.erase(record.name);
        } else {
            finding = Finding::Damaged;
            bytes.remove_prefix(std::min(bytes.find(RecordMark, 1), bytes.size()));
        }
    }
    return finding;
}

// An errno.
int WriteAll(int file, std::string_view bytes, std::size_t offset) {
    while (!bytes.empty()) {
        const ssize_t size = Durable::WriteAt(file, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (size <= 0) return size < 0 ? errno : EIO;
        bytes.remove_prefix(static_cast<std::size_t>(size));
        offset += static_cast<std::size_t>(size);
    }
    return 0;
}

}  // namespace

ProcessId IdOf(pid_t pid) {
    std::string stat;
    ReadFile("/proc/" + std::to_string(pid) + "/stat", stat);
    // After the program's name in parentheses come the fields from the third on; the time is the 22nd.
    const std::size_t begin = stat.rfind(')');
    if (begin == stat.npos) return {pid, 0};
    std::istringstream fields(stat.substr(begin + 1));
    std::string state;
    std::uint64_t number = 0;
    fields >> state;
    for (int field = 4; field <= 22; ++field)
        fields >> number;
    return {pid, state == "Z" ? 0 : number};
}

std::uint64_t BootMs() noexcept {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1'000'000;
}

template <class Fields, class Visitor>
void FailureState::Visit(Fields& fields, Visitor& visit) {
    visit(fields.count);
    visit(fields.quick);
    visit(fields.started);
    visit(fields.last);
    visit(fields.dueAction);
    visit(fields.dueTime);
}

template <class Fields, class Visitor>
void JournalEntry::Visit(Fields& fields, Visitor& visit) {
    visit(fields.status);
    auto pid = static_cast<DWORD>(fields.process.pid);
    visit(pid);
    if constexpr (!std::is_const_v<Fields>) fields.process.pid = static_cast<pid_t>(pid);
    visit(fields.process.startTime);
    visit(fields.commandLine);
    visit(fields.account);
    visit(fields.isAlone);
    visit(fields.failures);
    visit(fields.isStartOwed);
    visit(fields.arguments);
}

Journal::Journal(std::string path, int lock) : m_path(std::move(path)), m_lock(lock) {
    char mark[64] = {};
    const bool isMarked = m_lock >= 0 && Retry([&] { return pread(m_lock, mark, sizeof mark - 1, 0); }) > 0;
    const bool wasBehind = isMarked && (mark[0] == '\0' || MarkOf(State::Behind) == mark);
    const bool wasRunning = wasBehind || (isMarked && MarkOf(State::Whole) == mark);
    std::string bytes;
    const int error = ReadFile(m_path, bytes);
    const Finding finding = error ? Finding::OfAnotherBoot : Parse(bytes, m_entries);
    const bool isMissing = finding == Finding::OfAnotherBoot;
    m_wasDamaged =
        finding == Finding::Damaged || wasBehind || (isMissing && (wasRunning || (error && error != ENOENT)));
    m_isTrusted = !m_wasDamaged;
    if (m_wasDamaged) Print("the journal was damaged: %zu services are known from it", m_entries.size());
    const int failed = finding == Finding::Whole ? 0 : WriteAnew();
    if (!m_file && !isMissing) {
        // What is not whole goes on where there is no room for another one.
        m_file = Durable::Open(AT_FDCWD, m_path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW);
        m_size = m_reserved = bytes.size();
        m_limit = m_size + MostGrowth;
    }
    m_wasTold = !m_file;
    Mark(m_wasTold || !m_isTrusted ? State::Behind : State::Whole);
    if (m_wasTold) Print("the journal cannot be written: %s", std::strerror(failed ? failed : errno));
}

// Each as long as the others, so that it takes no room of a full disk. Empty where the boot id is not known.
std::string Journal::MarkOf(State state) {
    std::string mark = BootId();
    if (state == State::Behind && !mark.empty()) mark.front() = '!';
    if (state == State::Ended) mark.assign(mark.size(), '-');
    return mark;
}

void Journal::Mark(State state) {
    m_isMarked = m_lock < 0 || m_mark == state;
    if (m_isMarked) return;
    const std::string mark = MarkOf(state);
    // The first one of a full disk: zeros take no room, and say that there was a manager.
    if (m_mark == State::Unknown && !mark.empty()) Durable::Truncate(m_lock, static_cast<off_t>(mark.size()));
    m_isMarked = !mark.empty() && WriteAll(m_lock, mark, 0) == 0;
    if (m_isMarked) m_mark = state;
}

void Journal::Trust() {
    m_isTrusted = true;
    if (!IsBehind()) Mark(State::Whole);
}

// All of it in a new file, which takes the place of the old one when it is whole.
int Journal::WriteAnew() {
    const std::string staged = m_path + ".new";
    constexpr int Flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
    Descriptor file = Durable::Open(AT_FDCWD, staged.c_str(), Flags, 0600);
    if (!file) return errno;
    std::string bytes = Format(Header());
    for (const auto& [name, entry] : m_entries)
        bytes += Format(Record{name, TRUE, entry});
    int error = WriteAll(file.Get(), bytes, 0);
    if (!error && Durable::Rename(AT_FDCWD, staged.c_str(), AT_FDCWD, m_path.c_str()) != 0) error = errno;
    if (error) {
        Durable::Unlink(AT_FDCWD, staged.c_str());
        return error;
    }
    m_file = std::move(file);
    m_size = m_reserved = bytes.size();
    m_limit = m_size + MostGrowth;
    m_unwritten.clear();
    return 0;
}

int Journal::Append() {
    std::string bytes;
    for (const std::string& name : m_unwritten) {
        const auto found = m_entries.find(name);
        const bool isThere = found != m_entries.end();
        bytes += Format(isThere ? Record{name, TRUE, found->second} : Record{name, FALSE, {}});
    }
    if (m_size + bytes.size() > m_reserved) {
        m_reserved = m_size + bytes.size() + Reserve;
        Durable::Reserve(m_file.Get(), static_cast<off_t>(m_size), static_cast<off_t>(m_reserved - m_size));
    }
    if (const int error = WriteAll(m_file.Get(), bytes, m_size)) {
        // What got there would count as later than what is written next, if that is shorter.
        if (Durable::Truncate(m_file.Get(), static_cast<off_t>(m_size)) != 0) m_file = Descriptor();
        m_reserved = m_size;
        return error;
    }
    m_size += bytes.size();
    m_unwritten.clear();
    return 0;
}

// With its folder, as somebody clears up who does not know of it.
bool Journal::IsLost() const {
    struct stat info;
    return !m_file || fstat(m_file.Get(), &info) != 0 || info.st_nlink == 0;
}

void Journal::Write() {
    int error = 0;
    if (IsLost() || m_size > m_limit) error = WriteAnew();
    if (IsLost()) {
        m_file = Descriptor();
    } else if (!m_unwritten.empty()) {
        if (error) m_limit = m_size + MostGrowth;  // the old one goes on meanwhile
        error = Append();
    }
    Mark(error || !m_isTrusted ? State::Behind : State::Whole);
    if (error && !m_wasTold) Print("the journal cannot be written: %s", std::strerror(error));
    if (!error && m_wasTold) Print("the journal is written again");
    m_wasTold = error != 0;
}

// While something is still to be written, only TryAgain tries to.
void Journal::Put(const std::string& name, const JournalEntry& entry) {
    const bool wasBehind = IsBehind();
    m_unwritten.insert(name);
    m_entries[name] = entry;
    if (!wasBehind) Write();
}

void Journal::Remove(const std::string& name) {
    if (!m_entries.contains(name)) return;
    const bool wasBehind = IsBehind();
    m_unwritten.insert(name);
    m_entries.erase(name);
    if (!wasBehind) Write();
}

void Journal::TryAgain() {
    if (IsBehind()) Write();
}

void Journal::Delete() {
    Durable::Unlink(AT_FDCWD, m_path.c_str());
    Mark(State::Ended);
}

}  // namespace tqscm
