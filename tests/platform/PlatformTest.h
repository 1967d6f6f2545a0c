// What tests of the platform's calls share.
#pragma once

#include "TQLib/platform/Win32.h"

#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace Quellan::Corvel::Test {

// The code with which a call failed, or 0.
template <class Result>
DWORD CodeOf(Result succeeded) {
    return succeeded ? 0 : GetLastError();
}

inline DWORD CodeOf(HANDLE handle) {
    return handle != nullptr && handle != INVALID_HANDLE_VALUE ? 0 : GetLastError();
}

inline std::wstring Wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

// Whether the calls are Wine's, which does not do everything as documented: each use says what it leaves out.
inline bool OnWine() {
    wchar_t temp[MAX_PATH];
    const bool windows = GetTempPathW(MAX_PATH, temp) > 0 && temp[0] != L'/';
    return windows && GetEnvironmentVariableW(L"WINEPREFIX", nullptr, 0) > 0;
}

// A variable of the environment, as it was before when this ends.
class EnvironmentVariable {
  public:
    EnvironmentVariable(const wchar_t* name, const wchar_t* value) : m_name(name) {
        wchar_t old[1024];
        const DWORD size = GetEnvironmentVariableW(name, old, 1024);
        if (size > 0) m_old.assign(old, size);
        SetEnvironmentVariableW(name, value);
    }
    ~EnvironmentVariable() { SetEnvironmentVariableW(m_name, m_old.empty() ? nullptr : m_old.c_str()); }
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

  private:
    const wchar_t* m_name;
    std::wstring m_old;
};

// A new folder, removed with everything in it.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        static std::atomic<unsigned> count{0};
        wchar_t temp[MAX_PATH];
        const std::wstring begin = std::wstring(temp, GetTempPathW(MAX_PATH, temp)) + L"tqtest-" +
                                   std::to_wstring(GetCurrentProcessId()) + L"-";
        DWORD code;
        do {
            m_path = begin + std::to_wstring(count++);
            code = CodeOf(CreateDirectoryW(m_path.c_str(), nullptr));
        } while (code == ERROR_ALREADY_EXISTS);  // a test that was killed had the same identifier
        EXPECT_EQ(code, 0u);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::wstring& Path() const { return m_path; }
    std::wstring operator/(std::wstring_view name) const { return m_path + L"/" + std::wstring(name); }

  private:
    std::wstring m_path;
};

}  // namespace Quellan::Corvel::Test
