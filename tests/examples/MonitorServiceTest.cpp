#include "MonitorServiceRun.h"
#include "TQLib/core/TQException.h"
#include "TQLib/system/TQSysProc.h"
#include "support/ThrownCode.h"

namespace Quellan::Corvel::Test {
namespace {

using testing::HasSubstr;

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
    const TQServiceRecord stopped = m_service.Status().Status();
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
    EXPECT_EQ(m_service.Status().Status().exitCode, DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
