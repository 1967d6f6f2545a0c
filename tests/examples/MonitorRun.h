// monitor as a process, with a folder to watch.
#pragma once

#include "TQLib/files/registry/TQRegValue.h"
#include "platform/PlatformTest.h"
#include "support/ChildProcess.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>

namespace Quellan::Corvel::Test {

class Monitor : public testing::Test {
  protected:
    // How often it checks: short, because the tests wait for it.
    static constexpr const char* Interval = "0.02";
    static constexpr DWORD SeveralIntervalsMs = 200;

    Monitor() { LogFile().Set(TQString(m_logFile.c_str())); }
    ~Monitor() override { ForgetLogFile(); }
    static void ForgetLogFile() { LogFile().Delete(); }

    void Start(const std::vector<std::string>& arguments) {
        m_process.emplace("monitor", arguments, ChildProcess::Files::Piped);
    }
    // Watches the folder, and what else is given; returns when the first check of the folder is over.
    void StartWatching(const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"--interval", Interval, Folder()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        Start(arguments);
        ReadTo("watching");
    }
    std::string ReadTo(const std::string& part) { return m_process->ReadTo(part); }
    void Command(const std::string& word) { m_process->Write(word + '\n'); }
    int Stop() {
        Command("stop");
        return m_process->ExitCode();
    }

    std::string Folder() const { return std::filesystem::path(m_folder.Path()).string(); }
    void WriteFile(const char* name, const char* text) {
        std::ofstream(std::filesystem::path(m_folder.Path()) / name) << text;
    }
    void RemoveFile(const char* name) {
        std::filesystem::remove(std::filesystem::path(m_folder.Path()) / name);
    }

    static TQStringRegValue LogFile() {
        return TQStringRegValue(TQRegistry::MachineKey().Create(L"Software\\monitor"), L"LogFile");
    }

    TemporaryFolder m_folder, m_logFolder;
    const std::wstring m_logFile = m_logFolder / L"monitor.tlg";
    std::optional<ChildProcess> m_process;
};

}  // namespace Quellan::Corvel::Test
