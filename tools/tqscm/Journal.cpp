#include "Journal.h"

#include "platform/linux/base/Durable.h"

#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <system_error>

namespace tqscm {

using namespace Quellan::Corvel::Platform;

namespace {

// From here on it is written anew, with what counts.
constexpr std::size_t LargestFile = std::size_t{1} << 20;

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Header {
    DWORD version = ServiceProtocolVersion;
    std::string boot = ReadFile("/proc/sys/kernel/random/boot_id");

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

template <class Fields>
std::string Format(const Fields& fields) {
    ServiceFields::Writer write, size;
    write(fields);
    const std::string bytes = write.Take();
    size(static_cast<DWORD>(bytes.size()));
    return size.Take() + bytes;
}

// Takes the next record. False at the end, which may be a torn one.
template <class Fields>
bool Take(std::string_view& rest, Fields& fields) {
    if (rest.size() < sizeof(DWORD)) return false;
    DWORD size = 0;
    ServiceFields::Reader(rest.substr(0, sizeof size))(size);
    rest.remove_prefix(sizeof size);
    if (rest.size() < size) return false;
    ServiceFields::Reader read(rest.substr(0, size));
    read(fields);
    rest.remove_prefix(size);
    return read.IsComplete();
}

Journal::Entries Parse(std::string_view bytes) {
    Journal::Entries entries;
    Header header, now;
    if (!Take(bytes, header) || header.version != now.version || header.boot != now.boot) return entries;
    for (Record record; Take(bytes, record);) {
        if (record.isThere)
            entries[record.name] = record.entry;
        else
            entries.erase(record.name);
    }
    return entries;
}

void WriteAll(const Descriptor& file, const std::string& bytes) {
    if (Durable::Write(file.Get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        throw std::system_error(errno, std::generic_category(), "the journal");
}

}  // namespace

ProcessId IdOf(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
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

template <class Fields, class Visitor>
void JournalEntry::Visit(Fields& fields, Visitor& visit) {
    visit(fields.status);
    auto pid = static_cast<DWORD>(fields.process.pid);
    auto low = static_cast<DWORD>(fields.process.startTime);
    auto high = static_cast<DWORD>(fields.process.startTime >> 32);
    visit(pid);
    visit(low);
    visit(high);
    if constexpr (!std::is_const_v<Fields>)
        fields.process = {static_cast<pid_t>(pid), std::uint64_t{high} << 32 | low};
    visit(fields.commandLine);
    visit(fields.account);
    visit(fields.isAlone);
}

Journal::Journal(std::string path) : m_path(std::move(path)), m_entries(Parse(ReadFile(m_path))) {
    WriteAnew();
}

void Journal::WriteAnew() {
    const std::string staged = m_path + ".new";
    constexpr int Flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW;
    Descriptor file = Durable::Open(AT_FDCWD, staged.c_str(), Flags, 0600);
    std::string bytes = Format(Header());
    for (const auto& [name, entry] : m_entries)
        bytes += Format(Record{name, TRUE, entry});
    WriteAll(file, bytes);
    if (Durable::Rename(AT_FDCWD, staged.c_str(), AT_FDCWD, m_path.c_str()) != 0)
        throw std::system_error(errno, std::generic_category(), m_path);
    m_file = std::move(file);
    m_size = bytes.size();
}

void Journal::Append(const std::string& name) {
    const auto found = m_entries.find(name);
    const bool isThere = found != m_entries.end();
    const std::string bytes = Format(isThere ? Record{name, TRUE, found->second} : Record{name, FALSE, {}});
    if (m_size + bytes.size() > LargestFile) return WriteAnew();
    WriteAll(m_file, bytes);
    m_size += bytes.size();
}

void Journal::Put(const std::string& name, const JournalEntry& entry) {
    m_entries[name] = entry;
    Append(name);
}

void Journal::Remove(const std::string& name) {
    if (m_entries.erase(name)) Append(name);
}

void Journal::Delete() {
    Durable::Unlink(AT_FDCWD, m_path.c_str());
}

}  // namespace tqscm
