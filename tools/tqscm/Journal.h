// What a manager that is killed leaves to the next one: which processes it started for which services, and
// the services' states (docs/formats/service-manager.md). Of this boot only, so nothing waits for the disk.
#pragma once

#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/ServiceMessages.h"

#include <cstdint>
#include <map>
#include <string>

namespace tqscm {

// A process that does not take its id from one that has ended.
struct ProcessId {
    pid_t pid = 0;
    std::uint64_t startTime = 0;  // as the kernel counts

    bool operator==(const ProcessId&) const = default;
};
// Of a process that lives; no start time otherwise.
ProcessId IdOf(pid_t pid);

struct JournalEntry {
    SERVICE_STATUS status{};
    ProcessId process;        // none where it is stopped
    std::string commandLine;  // with which the process was started
    std::string account;      // as whom
    DWORD isAlone = 0;        // the process is for this service alone

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit);
};

class Journal {
  public:
    using Entries = std::map<std::string, JournalEntry>;  // by the services' names

    // Reads what there is of this boot and begins anew with it. Throws std::system_error.
    explicit Journal(std::string path);

    const Entries& All() const { return m_entries; }
    void Put(const std::string& name, const JournalEntry& entry);
    void Remove(const std::string& name);
    // At an orderly end.
    void Delete();

  private:
    void Append(const std::string& name);
    void WriteAnew();

    const std::string m_path;
    Quellan::Corvel::Platform::Descriptor m_file;
    std::size_t m_size = 0;
    Entries m_entries;
};

}  // namespace tqscm
