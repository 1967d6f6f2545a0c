#include "log/TQLog.h"

#include "core/TQEventLog.h"
#include "core/TQException.h"
#include "core/TQLib.h"
#include "core/TQThreadSynch.h"
#include "log/internal/LogRecord.h"
#include "log/internal/LogUsers.h"
#include "platform/Win32.h"
#include "security/TQSecThreadToken.h"
#include "system/TQSysProc.h"
#include "threads/TQMutex.h"

#include <iterator>
#include <new>

namespace Quellan::Corvel {

namespace {

using Sarvek::SecACL;
using Sarvek::SecAttr;
using Sarvek::SecDesc;
using Sarvek::SecID;
using Sarvek::TQSecThreadToken;

constexpr DWORD AppendWaitMs = 2000;
constexpr DWORD OpenWaitMs = 10000;

// The turn of this process to open one log, among all that open it: while one of them rolls it over, no other
// has it open, which would keep it where it is, and none takes the new file for the old one. Where processes
// may not share the turn they do without.
class OpeningTurn {
  public:
    explicit OpeningTurn(const TQFileName& key) noexcept {
        try {
            const TQMutex mutex(NameOf(key.FullName()).c_str(), true);
            m_lock = mutex.Acquire(OpenWaitMs);
        } catch (const TQCoreException&) {
            // Of another user, as a rule.
        }
    }

  private:
    // Names of kernel objects are short and have no backslashes.
    static TQString NameOf(const TQString& fileName) {
        std::uint64_t hash = 0xcbf29ce484222325;
        for (const wchar_t c : fileName.View())
            hash = (hash ^ static_cast<std::uint32_t>(c)) * 0x100000001b3;
        return TQString::Format(L"TQLog-%016llx", hash);
    }

    TQMutex::TQMutexLock m_lock;
};

TQFileName BackupOf(const TQFileName& name) {
    return name.WithName(TQString(name.Name() + L"_bak").View());
}

// The file to be rolled over must not have been written to since: nobody may have it open.
void MoveToBackup(const TQFileName& name, const TQFileName& backup) {
    if (!MoveFileExW(name.FullName().c_str(), backup.FullName().c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        TQSysException::ThrowLastError(L"TQLog::GetLog");
}

}  // namespace

struct TQLog::Failure {
    DWORD event;
    DWORD code;
    TQFileName file;
    std::optional<TQFileName> backup;

    // There is nobody to tell that the event log fails too.
    void Report() const noexcept {
        try {
            const wchar_t* const strings[] = {file.FullName().c_str(),
                                              backup ? backup->FullName().c_str() : L""};
            TQEventLog::LogEvent(TQEventLog::LibrarySource, event, code,
                                 std::span(strings).first(backup ? 2 : 1));
        } catch (...) {
        }
    }
};

struct TQLog::State {
    TQThreadSynch lock;
    LogMap logs TQ_GUARDED_BY(lock);

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
    : m_processId(GetCurrentProcessId()),
      m_moduleName(TQSysProc::ModuleName(TQSysProc::GetAppModule())),
      m_appName(TQLib::GetAppName()) {}

TQLog::TQLog(const wchar_t* fileName, bool secure) : TQLog() {
    constexpr auto Share = _TQFile::FileShare::Read | _TQFile::FileShare::Write;
    m_file = decltype(m_file)(new TQTextFile(TQFileName(fileName), FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                                             OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH | FILE_FLAG_SEQUENTIAL_SCAN,
                                             Share, secure ? GetLogSecurity() : SecAttr()));
    m_file->Seek(0, _TQFile::Origin::End);
}

TQLog::TQLog(const TQLog&) noexcept = default;
TQLog& TQLog::operator=(const TQLog&) noexcept = default;
TQLog::~TQLog() = default;

SecAttr TQLog::GetLogSecurity() {
    SecACL list;
    list.Allow(SecID(WinBuiltinAdministratorsSid), FILE_ALL_ACCESS | ACCESS_SYSTEM_SECURITY);
    list.Allow(SecID(WinBuiltinUsersSid), FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    return SecAttr(SecDesc().SetDACL(std::move(list)));
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
    std::optional<TQFileName> name;
    try {
        name.emplace(fileName);
        if (!name->HasExtension()) name = name->WithExtension(L"tlg");
    } catch (const TQSysException&) {
        return NullLog();  // no name, so nothing to keep it under
    }
    const TQFileName key = name->ToUpper();
    if (TQLogPtr log = Find(key)) return log;
    TQLogPtr log;
    TQSecThreadToken::ProcImpersonate([&] {
        std::optional<Failure> failure;
        {
            const OpeningTurn turn(key);
            State& state = TheState();
            const TQThreadSynch::TQSynchLock guard(state.lock);
            log = Find(key);
            if (log) return;
            log = Open(*name, maxSize == 0 ? DefaultMaxSize : maxSize, failure);
            state.logs.insert_or_assign(key, log);
        }
        if (failure) failure->Report();
    });
    return log;
}

TQLogPtr TQLog::Open(const TQFileName& name, ULONGLONG maxSize, std::optional<Failure>& failure) {
    try {
        const TQLogPtr log(new TQLog(name.FullName().c_str(), true));
        return log->Size() < maxSize ? log : RollOver(log, name, maxSize, failure);
    } catch (const TQSysException& exception) {
        failure = Failure{TQEventLog::LogOpenFailedEvent, static_cast<DWORD>(exception.COMErrCode()), name,
                          std::nullopt};
        return NullLog();
    }
}

TQLogPtr TQLog::RollOver(const TQLogPtr& log, const TQFileName& name, ULONGLONG maxSize,
                         std::optional<Failure>& failure) {
    const TQFileName backup = BackupOf(name);
    log->Close();
    try {
        MoveToBackup(name, backup);
    } catch (const TQSysException& exception) {
        failure = Failure{TQEventLog::LogRolloverFailedEvent, static_cast<DWORD>(exception.COMErrCode()),
                          name, backup};
        return NullLog();
    }
    return Open(name, maxSize, failure);
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
    try {
        const void* const address = object;
        AddMsg(message, TQString::Format(L"%s (%p)", object->Description().View(), address).c_str(), level);
    } catch (...) {
        // Without its source the record is dropped, like any that can't be made.
    }
}

void TQLog::AddMsg(const wchar_t* message, const wchar_t* source, TQLogLevel level) noexcept {
    if (!m_file) return;
    const _TQLastErrorKeeper keeper;
    try {
        std::shared_ptr<const std::wstring> user;
        try {
            user = CurrentLogUser();
        } catch (...) {
            // Whoever it is: the message counts.
        }
        LogRecord record{.level = level,
                         .time = TQTime::CurrentTime(),
                         .application = m_appName,
                         .process = m_processId,
                         .module = m_moduleName,
                         .thread = GetCurrentThreadId(),
                         .source = {},
                         .user = {},
                         .message = message ? message : L""};
        if (source) record.source = source;
        if (user) record.user = *user;
        LogText text;
        AppendLogRecord(text, record);
        m_file->Append(text.View(), AppendWaitMs);
    } catch (...) {
        // Writing to a log never harms whoever writes.
    }
}

void TQLog::Close() noexcept {
    m_file.Reset();
}

ULONGLONG TQLog::Size() const {
    return m_file ? m_file->Size() : 0;
}

}  // namespace Quellan::Corvel
