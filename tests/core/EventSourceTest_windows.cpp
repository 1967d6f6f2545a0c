#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQSysProc.h"
#include "support/ThrownCode.h"

#include <gtest/gtest.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

constexpr const wchar_t* SourceName = L"TQTestSource";
constexpr const wchar_t* Key = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\TQTestSource";

// A text value of the source's key, as the event log service reads it.
std::wstring Value(const wchar_t* name) {
    wchar_t text[MAX_PATH] = L"";
    DWORD size = sizeof text;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, Key, name, RRF_RT_ANY, nullptr, text, &size) != ERROR_SUCCESS)
        return L"(none)";
    return text;
}

TEST(EventSource, OnceInstalledFindsItsTextsInItsMessageFile) {
    const TQString file = TQSysProc::ModuleFileName(TQSysProc::LoadModule(L"TQRes_en.dll").Get());
    TQEventLog::InstallSource(SourceName, file.c_str(), 9);
    EXPECT_EQ(Value(L"CategoryMessageFile"), file.View());
    DWORD categories = 0;
    DWORD size = sizeof categories;
    EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, Key, L"CategoryCount", RRF_RT_REG_DWORD, nullptr, &categories,
                           &size),
              ERROR_SUCCESS);
    EXPECT_EQ(categories, DWORD{9});

    // What a viewer does: it loads the file that the key names and asks it for the event's text.
    const TQModule messages = TQSysProc::LoadModule(Value(L"EventMessageFile"));
    wchar_t text[256] = L"";
    DWORD_PTR strings[] = {reinterpret_cast<DWORD_PTR>(L"application"),
                           reinterpret_cast<DWORD_PTR>(L"details")};
    EXPECT_GT(FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, messages.Get(),
                             TQEventLog::UnhandledExceptionEvent, 0, text, 256,
                             reinterpret_cast<va_list*>(strings)),
              DWORD{0});
    EXPECT_NE(std::wstring(text).find(L"details"), std::wstring::npos);

    TQEventLog::RemoveSource(SourceName);
    EXPECT_EQ(Value(L"EventMessageFile"), L"(none)");
    EXPECT_EQ(ThrownCode([] { TQEventLog::RemoveSource(SourceName); }), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(ThrownCode([] { TQEventLog::InstallSource(L"", L"file", 0); }), DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
