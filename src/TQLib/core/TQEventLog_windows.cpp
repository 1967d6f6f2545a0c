#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <string>

namespace Quellan::Corvel {

namespace {

// The event log service reads its sources here; the values' names are its own.
constexpr const wchar_t* SourcesKey = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

void Check(LSTATUS code, const wchar_t* where) {
    if (code != ERROR_SUCCESS) throw TQSysException(static_cast<unsigned int>(code), where);
}

TQString SourceKey(const wchar_t* source) {
    if (!source || !*source) throw TQException(ERROR_INVALID_PARAMETER, L"TQEventLog::InstallSource");
    return TQString(SourcesKey) + source;
}

void SetText(HKEY key, const wchar_t* name, const TQString& text) {
    Check(RegSetValueExW(key, name, 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                         static_cast<DWORD>((text.Length() + 1) * sizeof(wchar_t))),
          L"TQEventLog::InstallSource");
}

void SetNumber(HKEY key, const wchar_t* name, DWORD number) {
    Check(RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number),
          L"TQEventLog::InstallSource");
}

}  // namespace

void TQEventLog::InstallSource(const wchar_t* source, const wchar_t* messageFile, DWORD categoryCount) {
    TQUniqueHandle<_TQRegKeyClose> key;
    Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, SourceKey(source).c_str(), 0, nullptr, 0, KEY_SET_VALUE,
                          nullptr, key.Put(), nullptr),
          L"TQEventLog::InstallSource");
    SetText(key.Get(), L"EventMessageFile", TQString(messageFile));
    SetText(key.Get(), L"CategoryMessageFile", TQString(messageFile));
    SetNumber(key.Get(), L"CategoryCount", categoryCount);
    SetNumber(key.Get(), L"TypesSupported",
              EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE);
}

void TQEventLog::RemoveSource(const wchar_t* source) {
    Check(RegDeleteKeyW(HKEY_LOCAL_MACHINE, SourceKey(source).c_str()), L"TQEventLog::RemoveSource");
}

}  // namespace Quellan::Corvel
