#include "TQLib/log/TQLog.h"

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/core/internal/About.h"
#include "TQLib/log/internal/LogFile.h"
#include "TQLib/log/internal/LogHead.h"
#include "TQLib/log/internal/LogRecord.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/SecACL.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/security/SecID.h"
#include "TQLib/security/TQSecThreadToken.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <atomic>
#include <iterator>
#include <new>
#include <set>

namespace Quellan::Corvel {

namespace {

using Sarvek::SecAttr;
using Sarvek::TQSecThreadToken;

constexpr DWORD OpenWaitMs = 10000;

// The turn of this process to open one log, among all that open it: while one of them rolls it over, no other
// has it open, which would keep it where it is, and none takes the new file for the old one. It is a lock on
// the log itself, by a handle that lets it be moved. Whoever can't have the turn in time does without.
class OpeningTurn {
  public:
    OpeningTurn(const TQFileName& name, const SecAttr& security) noexcept {
        constexpr ULONGLONG TurnLock = (1ULL << 62) - 3;  // next to those that appending takes
        constexpr int MostMoved = 16;
        constexpr auto Share =
            _TQFile::FileShare::Read | _TQFile::FileShare::Write | _TQFile::FileShare::Delete;
        const TQCountdownTimer timer(OpenWaitMs);
        try {
            for (int moved = 0; moved < MostMoved; ++moved) {
                m_file.emplace(name, FILE_GENERIC_READ | FILE_GENERIC_WRITE, OPEN_ALWAYS,
                               FILE_FLAG_WRITE_THROUGH, Share, security);
                // Who had the turn before may have moved the file away.
                if (!m_file->Lock(TurnLock, 1, timer.Remaining()) || m_file->SizeAtItsName()) return;
            }
        } catch (const TQCoreException&) {
            // The log can't be opened either, as a rule, and that is reported.
        }
    }

  private:
    std::optional<_TQFile> m_file;
};

TQFileName BackupOf(const TQFileName& name) {
    return name.WithName(TQString(name.Name() + L"_bak").View());
}

// The file to be rolled over must not have been written to since: nobody may have it open.
void MoveToBackup(const TQFileName& name, const TQFileName& backup) {
    if (!MoveFileExW(name.FullName().c_str(), backup.FullName().c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        About(name.FullName(), [] { TQSysException::ThrowLastError(L"TQLog::GetLog"); });
}

// Of the exception that is being handled; never 0.
DWORD CaughtCode() noexcept {
    try {
        throw;
    } catch (const TQCoreException& failure) {
        const auto code = static_cast<DWORD>(failure.COMErrCode());
        return code ? code : ERROR_GEN_FAILURE;
    } catch (const std::bad_alloc&) {
        return ERROR_OUTOFMEMORY;
    } catch (...) {
        return ERROR_GEN_FAILURE;
    }
}

// The record that tells how many others were lost, as part of the one that comes after them.
void AppendLosses(AnsiText& text, const LogFile::Losses& losses, LogRecord record) {
    wchar_t message[80];
    const std::size_t length =
        FormatTo(message, L"%llu %s lost (error %lu).", losses.count,
                 std::wstring_view(losses.count == 1 ? L"record was" : L"records were"), losses.code);
    record.level = TQLogLevel::Warning;
    record.source = L"TQLog";
    record.message = {message, length};
    AppendLogRecord(text, record);
}

}  // namespace

struct TQLog::Failure {
    DWORD event;
    DWORD code;
    TQFileName file;
    std::optional<TQFileName> backup;

    void Report() const noexcept {
        const wchar_t* const strings[] = {file.FullName().c_str(), backup ? backup->FullName().c_str() : L""};
        ReportAboutLog(event, code, std::span(strings).first(backup ? 2 : 1));
    }
};

struct TQLog::State {
    TQThreadSynch lock;
    LogMap logs TQ_GUARDED_BY(lock);
    // Reported; whoever asks again tries again.
    std::set<TQFileName> unopened TQ_GUARDED_BY(lock);

    void Clear() noexcept {
        LogMap logsToEnd;  // ended outside of the lock
        const TQThreadSynch::TQSynchLock guard(lock);
        logsToEnd.swap(logs);
    }
};

// Never destroyed: exit handlers and the destructors of static objects may still write. What it holds is
// given up when the library is unloaded.
TQLog::State& TQLog::TheState() {
    static State* const state = new State;
    static const struct Emptier {
        ~Emptier() { state->Clear(); }
    } emptier;
    return *state;
}

TQLog::TQLog()
    : m_moduleName(TQSysProc::ModuleName(TQSysProc::GetAppModule())), m_appName(TQLib::GetAppName()) {}

TQLog::TQLog(const wchar_t* fileName, bool secure) : TQLog() {
    static std::atomic<ULONGLONG> s_opened = 0;
    m_file = decltype(m_file)(new LogFile(TQFileName(fileName), secure ? GetLogSecurity() : SecAttr(),
                                          {++s_opened, InOneLine(m_appName), InOneLine(m_moduleName)}));
}

TQLog::TQLog(const TQLog&) noexcept = default;
TQLog& TQLog::operator=(const TQLog&) noexcept = default;
TQLog::~TQLog() = default;

Sarvek::SecAttr TQLog::GetLogSecurity() {
    Sarvek::SecACL list;
    list.Allow(Sarvek::SecID(WinBuiltinAdministratorsSid), FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY);
    list.Allow(Sarvek::SecID(WinBuiltinUsersSid), FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    return Sarvek::SecAttr(Sarvek::SecDesc().SetDACL(std::move(list)));
}

TQLogPtr TQLog::NullLog() {
    return TQLogPtr(new TQLog);
}

TQLogPtr TQLog::Find(const TQFileName& key) {
    State& state = TheState();
    const TQThreadSynch::TQSynchLock guard(state.lock);
    const auto found = state.logs.find(key);
    return found == state.logs.end() ? TQLogPtr() : found->second.Ptr();
}

TQLogPtr TQLog::GetLog(const wchar_t* fileName, ULONGLONG maxSize) {
    return Translated(L"TQLog::GetLog", [&] {
        std::optional<TQFileName> name;
        try {
            name.emplace(fileName);
            if (!name->HasExtension()) name = name->WithExtension(L"tlg");
        } catch (const TQSysException&) {
            return NullLog();  // no name, so nothing to keep it under
        }
        const TQFileName key = name->ToUpper();
        TQLogPtr log = Find(key);
        if (!log)
            TQSecThreadToken::ProcImpersonate(
                [&] { log = OpenInTurn(*name, key, maxSize == 0 ? DefaultMaxSize : maxSize); });
        return log;
    });
}

TQLogPtr TQLog::OpenInTurn(const TQFileName& name, const TQFileName& key, ULONGLONG maxSize) {
    std::optional<Failure> failure;
    TQLogPtr log;
    while (!log) {
        const OpeningTurn turn(name, GetLogSecurity());
        log = Find(key);
        if (log) return log;
        log = Open(name, maxSize, failure);
        if (log) Keep(key, log, failure);
    }
    if (failure) failure->Report();
    return log;
}

void TQLog::Keep(const TQFileName& key, TQLogPtr& log, std::optional<Failure>& failure) {
    // Made before the lock is taken and then only moved.
    LogMap logs;
    std::set<TQFileName> unopened;
    const bool mayTryAgain = failure && !failure->backup;
    if (mayTryAgain)
        unopened.insert(key);
    else
        logs.emplace(key, log);
    {
        State& state = TheState();
        const TQThreadSynch::TQSynchLock guard(state.lock);
        state.logs.merge(logs);
        state.unopened.merge(unopened);
        // Where there was no turn to be had, another thread may have been faster.
        const auto known = state.logs.find(key);
        if (known != state.logs.end()) log = known->second.Ptr();
    }
    if (!unopened.empty()) failure.reset();
}

TQLogPtr TQLog::Open(const TQFileName& name, ULONGLONG maxSize, std::optional<Failure>& failure) {
    std::optional<TQFileName> backup;
    try {
        TQLogPtr log(new TQLog(name.FullName().c_str(), true));
        if (log->Size() < maxSize) return log;
        log->Close();
        backup = BackupOf(name);
        MoveToBackup(name, *backup);
        return {};
    } catch (const TQSysException& exception) {
        const DWORD event = backup ? TQEventLog::LogRolloverFailedEvent : TQEventLog::LogOpenFailedEvent;
        failure = Failure{event, static_cast<DWORD>(exception.COMErrCode()), name, backup};
        return NullLog();
    }
}

const wchar_t* TQLog::LevelName(TQLogLevel level) noexcept {
    static constexpr const wchar_t* Names[] = {L"Raw",     L"Step",  L"Loop",      L"Input",   L"Output",
                                               L"Debug",   L"Audit", L"State",     L"Trace",   L"Information",
                                               L"Warning", L"Error", L"Exception", L"Critical"};
    const auto index = static_cast<std::size_t>(level);
    return index < std::size(Names) ? Names[index] : L"Unknown";
}

void TQLog::AddMsg(const wchar_t* message, TQLogLevel level) noexcept {
    AddMsg(message, static_cast<const wchar_t*>(nullptr), level);
}

void TQLog::AddMsg(const wchar_t* message, TQLogLevel level, const STLString& source) noexcept {
    AddMsg(message, source.c_str(), level);
}

void TQLog::AddMsg(const wchar_t* message, TQLogLevel level, const TQObject* object) noexcept {
    if (!m_file) return;
    if (!object) return AddMsg(message, level);
    TQString source;
    try {
        const void* const address = object;
        source = TQString::Format(L"%s (%p)", object->Description().View(), address);
    } catch (...) {
        // Without its source the record is lost, like any that can't be made.
        return m_file->Settle({}, CaughtCode());
    }
    AddMsg(message, source.c_str(), level);
}

void TQLog::AddMsg(const wchar_t* message, const wchar_t* source, TQLogLevel level) noexcept {
    if (!m_file) return;
    const _TQLastErrorKeeper keeper;
    const LogFile::Losses untold = m_file->TakeUntold();
    DWORD code = ERROR_SUCCESS;
    try {
        const LogHead head(m_file->Names());
        LogRecord record{.level = level,
                         .time = head.Time(),
                         .millisecond = head.Millisecond(),
                         .writer = head.Writer(),
                         .source = {},
                         .user = head.User(),
                         .message = message ? message : L""};
        AnsiText text;
        if (untold.count) AppendLosses(text, untold, record);
        if (source) record.source = source;
        AppendLogRecord(text, record);
        m_file->Append(text.View());
    } catch (...) {
        // Writing to a log never harms whoever writes.
        code = CaughtCode();
    }
    m_file->Settle(untold, code);
}

void TQLog::Close() noexcept {
    m_file.Reset();
}

ULONGLONG TQLog::Size() const {
    return m_file ? m_file->Size() : 0;
}

ULONGLONG TQLog::Lost() const noexcept {
    return m_file ? m_file->Lost() : 0;
}

}  // namespace Quellan::Corvel
