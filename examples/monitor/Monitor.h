// Walks files and folders, reads what it finds and reports every platform call that fails.
#pragma once

#include "TQLib.h"

// The counts of one run.
struct MonitorSummary {
    ULONGLONG folders = 0;
    ULONGLONG files = 0;
    ULONGLONG bytes = 0;
    ULONGLONG failures = 0;
};

// Belongs to one thread. Failures of single files and folders are reported and counted, never thrown.
class Monitor {
  public:
    explicit Monitor(Quellan::Corvel::TQConsole& console) : m_console(console) {}

    // Checks one file, or a folder with all that is below it.
    void CheckTarget(const Quellan::Corvel::TQString& path);

    const MonitorSummary& Summary() const { return m_summary; }

  private:
    void CheckFolder(const Quellan::Corvel::TQString& path);
    void CheckFile(const Quellan::Corvel::TQString& path);
    void CheckEntry(const Quellan::Corvel::TQString& path, DWORD attributes);
    void Report(const Quellan::Corvel::TQCoreException& failure, const wchar_t* where);

    Quellan::Corvel::TQConsole& m_console;
    MonitorSummary m_summary;
};
