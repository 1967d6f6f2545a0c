#include "TQLib/log/internal/LogFile.h"

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/TQSecThreadToken.h"

#include <exception>

namespace Quellan::Corvel {

namespace {

constexpr DWORD AppendWaitMs = 2000;

}  // namespace

bool ReportAboutLog(DWORD event, DWORD code, std::span<const wchar_t* const> strings) noexcept {
    try {
        TQEventLog::LogEvent(TQEventLog::LibrarySource, event, code, strings);
        return true;
    } catch (...) {
        return false;
    }
}

LogFile::LogFile(const TQFileName& name, const Sarvek::SecAttr& security, LogNames names)
    : m_name(name),
      m_security(security),
      m_names(std::move(names)),
      m_current(Open()),
      m_process(GetCurrentProcessId()) {}

LogFile::FilePtr LogFile::Open() const {
    constexpr auto Share = _TQFile::FileShare::Read | _TQFile::FileShare::Write;
    return FilePtr(new TQTextFile(m_name, FILE_GENERIC_READ | FILE_GENERIC_WRITE, OPEN_ALWAYS,
                                  FILE_FLAG_WRITE_THROUGH | FILE_FLAG_SEQUENTIAL_SCAN, Share, m_security));
}

LogFile::FilePtr LogFile::Current() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_current;
}

ULONGLONG LogFile::Size() const {
    return Current()->SizeAtItsName().value_or(0);
}

// As the process itself, like each opening of a log. A thread that could not become its client again
// afterwards would go on with the rights of the process: better none goes on.
void LogFile::Replace(const FilePtr& old) {
    bool isSetAside = false;
    std::exception_ptr failure;
    try {
        Sarvek::TQSecThreadToken::ProcImpersonate([&] {
            isSetAside = true;
            try {
                FilePtr file = Open();
                const TQThreadSynch::TQSynchLock guard(m_lock);
                if (m_current.Get() == old.Get()) m_current.Swap(file);
            } catch (...) {
                failure = std::current_exception();
            }
        });
    } catch (...) {
        if (isSetAside) std::terminate();
        throw;
    }
    if (failure) std::rethrow_exception(failure);
}

void LogFile::Append(std::string_view records) {
    const TQCountdownTimer timer(AppendWaitMs);
    constexpr int MostReplaced = 2;  // who keeps on deleting the file gets no records
    for (int replaced = 0;; ++replaced) {
        const FilePtr file = Current();
        try {
            return file->AppendBytes(records, replaced == 0 ? AppendWaitMs : timer.Remaining());
        } catch (const TQSysException& failure) {
            // The child of a fork that could not open the file anew is refused its locks.
            const LONG code = failure.COMErrCode();
            const bool mayHelp = code == ERROR_FILE_INVALID || code == ERROR_ACCESS_DENIED;
            if (!mayHelp || replaced == MostReplaced) throw;
        }
        Replace(file);
    }
}

LogFile::Losses LogFile::TakeUntold() noexcept {
    const DWORD process = GetCurrentProcessId();
    if (DWORD known = m_process; known != process && m_process.compare_exchange_strong(known, process)) {
        m_lost = m_untold = 0;
        m_isReported = false;
    }
    return {m_untold ? m_untold.exchange(0) : 0, m_code};
}

void LogFile::Settle(const Losses& told, DWORD code) noexcept {
    if (code) {
        ++m_lost;
        m_code = code;
        m_untold += told.count + 1;
    } else if (told.count == 0) {
        return;
    }
    const wchar_t* const strings[] = {m_name.FullName().c_str()};
    // The event log may fail for the same reason: it is tried again with each record until it takes the
    // entry.
    if (!m_isReported.exchange(true) && !ReportAboutLog(TQEventLog::LogRecordsLostEvent, m_code, strings))
        m_isReported = false;
    if (!code) m_isReported = false;
}

}  // namespace Quellan::Corvel
