// The service program of the tests: what its controls and start arguments mean.
#pragma once

#include "TQLib/platform/Win32.h"

#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

// Controls.
constexpr DWORD CrashControl = 128;   // ends the process
constexpr DWORD RefuseControl = 129;  // the handler returns RefusalCode
constexpr DWORD SlowControl = 130;    // the handler takes SlowControlMs
constexpr DWORD FailControl = 131;    // reports that it stopped, with FailureCode
// Stops by itself, with FailureCode, when the file is there, which goes when it has reported.
constexpr DWORD StopByFileControl = 132;
constexpr const char* StopFile = "stop";  // below TQLIB_ROOT

constexpr DWORD RefusalCode = 4321;
constexpr DWORD FailureCode = 1234;
constexpr DWORD SlowControlMs = 5500;

// The wait hint of services that misbehave.
constexpr DWORD ShortHintMs = 100;

// The first start argument.
constexpr const wchar_t* CountArguments = L"count";  // stops with their number as its own exit code
constexpr const wchar_t* StartSlowly = L"slowly";    // four check points on the way
constexpr DWORD SlowSteps = 4;
constexpr DWORD SlowStepMs = 40;

// Serves the services of these names in one process until they have ended; whether it could.
inline bool ServeAll(const std::vector<std::string>& names, LPSERVICE_MAIN_FUNCTIONW main) {
    std::vector<std::wstring> texts;
    for (const std::string& name : names)
        texts.emplace_back(name.begin(), name.end());
    std::vector<SERVICE_TABLE_ENTRYW> table;
    for (std::wstring& text : texts)
        table.push_back({text.data(), main});
    table.push_back({nullptr, nullptr});
    return StartServiceCtrlDispatcherW(table.data());
}

}  // namespace Quellan::Corvel::Test
