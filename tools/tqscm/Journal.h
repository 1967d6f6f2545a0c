// What a manager that is killed leaves to the next one: which processes it started for which services, the
// services' states, and what it still owes them (docs/formats/service-manager.md). Of this boot only, so
// nothing waits for the disk.
#pragma once

#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <cstdint>
#include <map>
#include <set>
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

// Since the machine was booted, its sleep counted: a later manager goes on with it.
std::uint64_t BootMs() noexcept;

// How often a service has failed, and what is due for it. Times are those of BootMs.
struct FailureState {
    DWORD count = 0;            // since the reset period began
    DWORD quick = 0;            // of them, one soon after the other
    std::uint64_t started = 0;  // when the service was last started
    std::uint64_t last = 0;     // 0 where there was none
    DWORD dueAction = 0;        // SC_ACTION_TYPE: what has not been done for the last one
    std::uint64_t dueTime = 0;

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit);
};

struct JournalEntry {
    SERVICE_STATUS status{};
    ProcessId process;        // none where it is stopped
    std::string commandLine;  // with which the process was started
    std::string account;      // as whom
    DWORD isAlone = 0;        // the process is for this service alone

    // What the manager owes.
    FailureState failures;
    DWORD isStartOwed = 0;               // a start was asked for and has not begun
    std::vector<std::string> arguments;  // of that start

    template <class Fields, class Visitor>
    static void Visit(Fields& fields, Visitor& visit);
};

// Never fails but for memory (std::bad_alloc): what cannot be written is kept here, said once to the operator,
// and written when TryAgain finds that it can be.
class Journal {
  public:
    using Entries = std::map<std::string, JournalEntry>;  // by the services' names

    // Reads what there is of this boot and goes on with it. `lock` is the manager's lock file, which is marked
    // until Delete, -1 for none.
    explicit Journal(std::string path, int lock = -1);

    // Something that an earlier manager of this boot wrote may be missing from what was read.
    bool WasDamaged() const { return m_wasDamaged; }
    const Entries& All() const { return m_entries; }
    void Put(const std::string& name, const JournalEntry& entry);
    void Remove(const std::string& name);
    // Whether something is still to be written.
    bool IsBehind() const { return !m_file || !m_unwritten.empty() || !m_isMarked; }
    void TryAgain();
    // All that is missing has been put.
    void Trust();
    // At an orderly end.
    void Delete();

  private:
    int Append();
    int WriteAnew();
    void Write();
    bool IsLost() const;
    // What the lock file says: that a manager runs, that it does and something is not in the journal, that it has
    // ended in order.
    enum class State { Unknown, Whole, Behind, Ended };
    static std::string MarkOf(State state);
    void Mark(State state);

    const std::string m_path;
    const int m_lock;
    Quellan::Platform::Descriptor m_file;
    std::size_t m_size = 0;
    std::size_t m_reserved = 0;  // for a file as large as this there is room
    std::size_t m_limit = 0;     // from here on it is written anew, with what counts
    Entries m_entries;
    std::set<std::string> m_unwritten;  // names
    bool m_wasDamaged = false;
    State m_mark = State::Unknown;
    bool m_isMarked = true;
    bool m_isTrusted = true;
    bool m_wasTold = false;  // that it cannot be written
};

}  // namespace tqscm
