// The parts of `TQLib` that are about the application's log.
#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/files/TQFileName.h"
#include "TQLib/files/registry/TQRegKey.h"
#include "TQLib/files/registry/TQRegValue.h"
#include "TQLib/log/TQLog.h"
#include "TQLib/platform/LogFolder.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/TQSecThreadToken.h"
#include "TQLib/system/TQSysProc.h"

#include <vector>

namespace Quellan::Corvel {

namespace {

struct AppLog {
    TQThreadSynch lock;
    TQString name TQ_GUARDED_BY(lock);
};

AppLog& TheAppLog() {
    static AppLog* const log = new AppLog;
    return *log;
}

// What the value holds, or `missing` also where it is none of its type: settings that make no sense are as
// good as none. A failure to read them says nothing about them and is thrown.
template <class Value>
typename Value::Data ReadOr(const TQRegKey& key, const wchar_t* name, const typename Value::Data& missing) {
    try {
        return Value(key, name).GetOr(missing);
    } catch (const TQException& failure) {
        const LONG code = failure.COMErrCode();
        if (code != ERROR_UNSUPPORTED_TYPE && code != ERROR_INVALID_DATA) throw;
        return missing;
    }
}

TQString ConfiguredName(const TQRegKey& key) {
    const TQString expanded = ReadOr<TQExpandStringRegValue>(key, L"LogFile", {});
    return expanded.IsEmpty() ? ReadOr<TQStringRegValue>(key, L"LogFile", {}) : expanded;
}

// Empty where there is no such variable.
TQString Variable(const wchar_t* name) {
    std::vector<wchar_t> value(MAX_PATH);
    for (;;) {
        const DWORD size = GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size()));
        if (size < value.size()) return TQString(value.data(), size);
        value.resize(size);
    }
}

}  // namespace

TQRegKey TQLib::GetAppKey(bool create) {
    const TQString path = L"Software\\" + GetAppName();
    const TQRegKey machine = TQRegistry::MachineKey();
    TQRegKey key = machine.Find(path.c_str());
    if (key.IsNull()) key = TQRegistry::UserKey().Find(path.c_str());
    if (!key.IsNull() || !create) return key;
    try {
        return machine.Create(path.c_str(), TQRegKey::ReadAccess);
    } catch (const TQSysException& failure) {
        if (failure.COMErrCode() != ERROR_ACCESS_DENIED) throw;
        return TQRegistry::UserKey().Create(path.c_str(), TQRegKey::ReadAccess);
    }
}

TQSmartPtr<TQLog, _TQRefThrPtr<TQLog, 1, 0>> TQLib::GetAppLog(bool create) {
    TQString name;
    ULONGLONG maxSize = 0;
    {
        AppLog& log = TheAppLog();
        const TQThreadSynch::TQSynchLock guard(log.lock);
        if (log.name.IsEmpty()) {
            Sarvek::TQSecThreadToken::ProcImpersonate([&] {
                try {
                    const TQRegKey key = GetAppKey(create);
                    if (key.IsNull()) return;
                    maxSize = ReadOr<TQDWORDRegValue>(key, L"MaxLogFileSize", 0);
                    name = ConfiguredName(key);
                    if (name.IsEmpty()) name = GetDefaultLogFileName();
                } catch (const TQCoreException&) {
                    // The next call tries again.
                }
            });
            log.name = name;
        }
        name = log.name;
    }
    // Outside of the lock: whoever opens a log may have to wait for his turn.
    return name.IsEmpty() ? TQLog::NullLog() : TQLog::GetLog(name.c_str(), maxSize);
}

TQString TQLib::GetDefaultLogFileName() {
    const TQString module = TQSysProc::ModuleFileName(TQSysProc::GetAppModule());
    TQString result;
    if (SetDefaultLogFilename(TQFileName(module).Path(), result)) return result;
    for (const wchar_t* name : {L"TEMP", L"TMP", L"SYSTEMDRIVE", L"SYSTEMROOT"}) {
        const TQString folder = Variable(name);
        if (!folder.IsEmpty() && SetDefaultLogFilename(folder, result)) return result;
    }
    SetDefaultLogFilename(TQString(Platform::FolderForLogs()), result);
    return result;
}

bool TQLib::SetDefaultLogFilename(const TQString& folder, TQString& result) {
    const TQFileName name(folder, TQString::Format(L"%s.tlg", GetAppName().c_str()).View());
    result = name.FullName();
    return name.DriveType() == TQFileName::FixedDrive;
}

}  // namespace Quellan::Corvel
