// Checks files and folders: reads what is new, tells what has changed and reports every platform call that
// fails.
#pragma once

#include "TQLib.h"

#include <functional>
#include <map>

struct MonitorSummary {
    ULONGLONG checks = 0;
    ULONGLONG folders = 0;  // in the last check, as are the files
    ULONGLONG files = 0;
    ULONGLONG bytes = 0;  // read in all checks, as are the next two
    ULONGLONG changes = 0;
    ULONGLONG failures = 0;
};

// Looks at the same targets again and again. Belongs to one thread. Failures of single files and folders are
// reported when they arise, on the console and as entries of the event log, and counted, never thrown.
class Monitor {
  public:
    // The target that raises an access violation, to show what becomes of one.
    static constexpr const wchar_t* FaultTarget = L"fault:";

    // `isStopped` is asked again and again during a check; once it says yes, the check ends and counts for
    // nothing.
    Monitor(Quellan::Corvel::TQConsole& console, std::function<bool()> isStopped)
        : m_console(console), m_isStopped(std::move(isStopped)) {}

    // Checks each target, a file or a folder with all that is below it. A file is read if it is new, has
    // changed or could not be read before. From the second check on, files that were added, removed or
    // changed in size or time are named on the console; of what could not be looked at, nothing is said.
    void Check(const Quellan::Corvel::TQStringArray& targets);

    const MonitorSummary& Summary() const { return m_summary; }

  private:
    struct FileState {
        DWORD attributes;
        ULONGLONG size;
        ULONGLONG written;
        bool operator==(const FileState&) const = default;
    };
    struct Snapshot {
        std::map<Quellan::Corvel::TQString, FileState> files;
        std::map<Quellan::Corvel::TQString, DWORD> failures;  // codes
    };

    template <class Data>
    static FileState StateOf(const Data& data);

    void CheckTarget(const Quellan::Corvel::TQString& path);
    void CheckEntry(const Quellan::Corvel::TQString& path, const FileState& state);
    void CheckFolder(const Quellan::Corvel::TQString& path);
    void CheckFile(const Quellan::Corvel::TQString& path, const FileState& state);
    void TellChanges();
    void Tell(const wchar_t* change, const Quellan::Corvel::TQString& path);
    void Report(const Quellan::Corvel::TQCoreException& failure, const wchar_t* where,
                const Quellan::Corvel::TQString& path);

    Quellan::Corvel::TQConsole& m_console;
    const std::function<bool()> m_isStopped;
    Snapshot m_before;  // what the last check found
    Snapshot m_now;
    MonitorSummary m_summary;
};
