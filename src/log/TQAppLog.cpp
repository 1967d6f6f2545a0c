// The parts of `TQLib` that are about the application's log.
#include "core/TQException.h"
#include "core/TQLib.h"
#include "core/TQThreadSynch.h"
#include "files/TQFileName.h"
#include "files/TQRegKey.h"
#include "files/TQRegValue.h"
#include "log/TQLog.h"
#include "platform/Win32.h"
#include "security/TQSecThreadToken.h"
#include "system/TQSysProc.h"

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

// Null where the key is missing or may not be read.
TQRegKey FindAppKey(bool create) {
    try {
        return TQLib::GetAppKey(create);
    } catch (const TQCoreException&) {
        return {};
    }
}

// What the value holds, or `missing` also where it is of another type.
template <class Value>
typename Value::Data ReadOr(const TQRegKey& key, const wchar_t* name, const typename Value::Data& missing) {
    try {
        return Value(key, name).GetOr(missing);
    } catch (const TQException&) {
        return missing;
    }
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

TQString TemporaryFolder() {
    wchar_t folder[MAX_PATH + 1];
    return TQString(folder, GetTempPathW(MAX_PATH + 1, folder));
}

}  // namespace

TQRegKey TQLib::GetAppKey(bool create) {
    const TQString path = L"Software\\" + GetAppName();
    const TQRegKey machine = TQRegistry::MachineKey();
    TQRegKey key = machine.Find(path.c_str());
    return key.IsNull() && create ? machine.Create(path.c_str(), TQRegKey::ReadAccess) : key;
}

TQSmartPtr<TQLog, _TQRefThrPtr<TQLog, 1, 0>> TQLib::GetAppLog(bool create) {
    TQString name;
    ULONGLONG maxSize = 0;
    {
        AppLog& log = TheAppLog();
        const TQThreadSynch::TQSynchLock guard(log.lock);
        if (log.name.IsEmpty()) {
            Sarvek::TQSecThreadToken::ProcImpersonate([&] {
                const TQRegKey key = FindAppKey(create);
                if (key.IsNull()) return;
                maxSize = ReadOr<TQDWORDRegValue>(key, L"MaxLogFileSize", 0);
                name = ReadOr<TQStringRegValue>(key, L"LogFile", {});
                if (name.IsEmpty()) name = GetDefaultLogFileName();
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
    SetDefaultLogFilename(TemporaryFolder(), result);
    return result;
}

bool TQLib::SetDefaultLogFilename(const TQString& folder, TQString& result) {
    const TQFileName name(folder, TQString::Format(L"%s.tlg", GetAppName().c_str()).View());
    result = name.FullName();
    return name.DriveType() == TQFileName::FixedDrive;
}

}  // namespace Quellan::Corvel
