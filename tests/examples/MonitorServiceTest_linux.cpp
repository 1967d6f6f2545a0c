#include "MonitorServiceRun.h"

#include <csignal>

namespace Quellan::Corvel::Test {
namespace {

TEST_F(MonitorAsAService, IsStartedAgainAfterACrash) {
    ASSERT_EQ(Word({"install", "--interval", Interval, Folder()}), 0);
    ASSERT_EQ(Word({"start"}), 0);
    const DWORD process = m_service.ProcessID();
    ASSERT_EQ(kill(static_cast<pid_t>(process), SIGKILL), 0);
    ASSERT_TRUE(m_service.WaitForState(TQSvcState::Stopped, LimitMs));
    EXPECT_EQ(m_service.Status().Status().exitCode, DWORD{ERROR_PROCESS_ABORTED});
    ASSERT_TRUE(m_service.WaitForState(TQSvcState::Running, LimitMs));
    EXPECT_NE(m_service.ProcessID(), process);
    AwaitInLog(", watching");
    WriteFile("new", "");
    AwaitInLog("    added " + Folder());
    EXPECT_EQ(Word({"stop"}), 0);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
