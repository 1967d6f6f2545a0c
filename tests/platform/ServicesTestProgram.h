// The service program of the tests: what its controls and start arguments mean.
#pragma once

#include "TQLib/platform/Win32.h"

#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

// Controls.
constexpr DWORD CrashControl = 128;     // ends the process
constexpr DWORD RefuseControl = 129;    // the handler returns RefusalCode
constexpr DWORD SlowControl = 130;      // the handler takes SlowControlMs
constexpr DWORD FailControl = 131;      // reports that it stopped, with FailureCode
constexpr DWORD StopSoonControl = 132;  // stops by itself StopSoonMs later, with FailureCode

constexpr DWORD RefusalCode = 4321;
constexpr DWORD FailureCode = 1234;
constexpr DWORD SlowControlMs = 5500;
constexpr DWORD StopSoonMs = 300;

// The wait hint of services that misbehave.
constexpr DWORD ShortHintMs = 100;

// The first start argument.
constexpr const wchar_t* CountArguments = L"count";  // stops with their number as its own exit code
constexpr const wchar_t* StartSlowly = L"slowly";    // four check points on the way
constexpr const wchar_t* CrashAtOnce = L"crash";
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
