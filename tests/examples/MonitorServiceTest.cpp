// monitor as a service of a real service manager.
#include "MonitorRun.h"
#include "TQLib/files/TQFileName.h"
#include "TQLib/services/TQServiceCtrl.h"
#include "TQLib/system/TQSysProc.h"
#include "support/Eventually.h"
#include "support/ReadBytes.h"
#include "support/ServiceManager.h"

namespace Quellan::Corvel::Test {
namespace {

using testing::HasSubstr;

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
        std::string text;
        EXPECT_TRUE(Eventually([&] {
            text = ReadBytes(m_log).substr(m_logBegin);
            return text.find(part) != text.npos;
        })) << "not in the log: "
            << part << "\n"
            << text;
    }

    const ServiceManager m_manager;
    const TQServiceCtrl m_service{L"monitor"};
    std::string m_output;

  private:
    static std::filesystem::path LogPath() {
        const TQFileName self(TQSysProc::ModuleFileName(nullptr));
        return std::filesystem::path(std::wstring(self.Path().View())) / "monitor.tlg";
    }
    const std::filesystem::path m_log = LogPath();
    const std::size_t m_logBegin = ReadBytes(m_log).size();
};

TEST_F(MonitorAsAService, IsInstalledStartedControlledAndRemovedByItsWords) {
    ASSERT_EQ(Word({"install", "--interval", Interval, Folder()}), 0);
    EXPECT_EQ(Word({"install"}), 1) << "it is there already";
    ASSERT_EQ(Word({"start"}), 0);
    const DWORD process = m_service.ProcessID();
    EXPECT_EQ(Word({"status"}), 0);
    EXPECT_THAT(m_output, HasSubstr("monitor: running, process " + std::to_string(process)));

    AwaitInLog(", watching");
    WriteFile("new", "");
    AwaitInLog("    added " + Folder());
    m_service.Pause();
    EXPECT_TRUE(m_service.WaitForState(TQSvcState::Paused, LimitMs));
    EXPECT_EQ(m_service.Interrogate().currentState, TQSvcState::Paused);
    AwaitInLog("    group 1 paused");
    WriteFile("unseen", "");
    m_service.Continue();
    EXPECT_TRUE(m_service.WaitForState(TQSvcState::Running, LimitMs));
    RemoveFile("new");
    AwaitInLog("    removed " + Folder());

    EXPECT_EQ(Word({"stop"}), 0);
    const TQServiceRecord stopped = m_service.QueryStatus().Record();
    EXPECT_EQ(stopped.currentState, TQSvcState::Stopped);
    EXPECT_EQ(stopped.exitCode, 0u);
    EXPECT_EQ(Word({"uninstall"}), 0);
    EXPECT_TRUE(ServiceManager::IsGone(L"monitor"));
}

TEST_F(MonitorAsAService, WatchesWhatItIsStartedWith) {
    ASSERT_EQ(Word({"install"}), 0);
    ASSERT_EQ(Word({"start", "--interval", Interval, Folder()}), 0);
    AwaitInLog(", watching");
    WriteFile("new", "");
    AwaitInLog("    added " + Folder());
    EXPECT_EQ(Word({"stop"}), 0);
}

TEST_F(MonitorAsAService, EndsWithACodeWhereItIsNotToldWhatToWatch) {
    ASSERT_EQ(Word({"install"}), 0);
    EXPECT_EQ(Word({"start"}), 1);
    EXPECT_THAT(m_output, HasSubstr("[0x00000057]"));
    EXPECT_EQ(m_service.QueryStatus().Record().exitCode, DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
