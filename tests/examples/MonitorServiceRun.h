// monitor as a service of a real service manager.
#pragma once

#include "MonitorRun.h"
#include "TQLib/files/TQFileName.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "TQLib/system/TQSysProc.h"
#include "support/ServiceManager.h"

namespace Quellan::Corvel::Test {

class MonitorAsAService : public Monitor {
  protected:
    static constexpr DWORD LimitMs = 20'000;

    // The manager's services have a registry of their own on Linux: the log is where it is without a setting.
    MonitorAsAService() { ForgetLogFile(); }
    ~MonitorAsAService() override {
        Word({"uninstall"});
        EXPECT_TRUE(ServiceManager::IsGone(L"monitor"));
    }

    // The exit code of monitor with these arguments.
    int Word(const std::vector<std::string>& arguments) {
        ChildProcess process("monitor", arguments, ChildProcess::Files::Piped);
        m_output = process.ReadAll();
        return process.ExitCode();
    }

    // Waits until a record of this test has `part`.
    void AwaitInLog(const std::string& part) const {
        const ULONGLONG end = GetTickCount64() + LimitMs;
        for (;; Sleep(10)) {
            std::ifstream file(m_log, std::ios::binary);
            file.seekg(m_logBegin);
            const std::string text(std::istreambuf_iterator<char>(file), {});
            if (text.find(part) != text.npos) return;
            ASSERT_LT(GetTickCount64(), end) << "not in the log: " << part << "\n" << text;
        }
    }

    const ServiceManager m_manager;
    const TQServiceCtrl m_service{L"monitor"};
    std::string m_output;

  private:
    static std::filesystem::path LogPath() {
        const TQFileName self(TQSysProc::ModuleFileName(nullptr));
        return std::filesystem::path(std::wstring(self.Path().View())) / "monitor.tlg";
    }
    static std::streamoff SizeOf(const std::filesystem::path& path) {
        std::error_code missing;
        const auto size = std::filesystem::file_size(path, missing);
        return missing ? 0 : static_cast<std::streamoff>(size);
    }

    const std::filesystem::path m_log = LogPath();
    const std::streamoff m_logBegin = SizeOf(m_log);
};

}  // namespace Quellan::Corvel::Test
