// The file of a log, as all copies of the log share it.
#pragma once

#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/files/TQTextFile.h"
#include "TQLib/log/internal/LogHead.h"
#include "TQLib/security/SecAttr.h"
#include "TQLib/text/memory/TQSmartPtr.h"

#include <atomic>
#include <span>
#include <string_view>

namespace Quellan::Corvel {

// Writes an entry about a log to the system event log; false where that fails too.
bool ReportAboutLog(DWORD event, DWORD code, std::span<const wchar_t* const> strings) noexcept;

// Goes with the file's name: where the file was moved or deleted, records go to a new one. Counts the records
// that could not be written. For several threads.
class LogFile {
  public:
    // Opens the file or makes it with the security. Throws as `TQTextFile`.
    LogFile(const TQFileName& name, const Sarvek::SecAttr& security, LogNames names);

    const LogNames& Names() const noexcept { return m_names; }

    // 0 where there is no file at the name now.
    ULONGLONG Size() const;

    // Of whole records. Throws as `TQTextFile`: nothing of them is in the file then.
    void Append(std::string_view records);

    // Each record begins with what is to be told of others before it, and ends with its own outcome: a code,
    // or 0 where both are in the file.
    struct Losses {
        ULONGLONG count;
        DWORD code;  // of the last one
    };
    Losses TakeUntold() noexcept;
    void Settle(const Losses& told, DWORD code) noexcept;

    // All that were lost.
    ULONGLONG Lost() const noexcept { return m_lost; }

  private:
    using FilePtr = TQSmartPtr<TQTextFile, _TQRefThrPtr<TQTextFile>>;

    FilePtr Open() const;
    FilePtr Current() const;
    void Replace(const FilePtr& old);

    const TQFileName m_name;
    const Sarvek::SecAttr m_security;
    const LogNames m_names;

    mutable TQThreadSynch m_lock;
    FilePtr m_current TQ_GUARDED_BY(m_lock);

    // Of the process that is named here: the child of a fork has lost nothing yet.
    std::atomic<DWORD> m_process;
    std::atomic<ULONGLONG> m_lost = 0;
    std::atomic<ULONGLONG> m_untold = 0;
    std::atomic<DWORD> m_code = 0;
    std::atomic<bool> m_isReported = false;  // until the log has told of it
};

}  // namespace Quellan::Corvel
