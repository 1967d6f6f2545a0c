#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

// What the platform's event log does with an event is tested on Linux alone: under Wine events go nowhere.
namespace Quellan::Corvel::Test {
namespace {

class EventSource : public testing::Test {
  protected:
    ~EventSource() override { DeregisterEventSource(m_source); }

    const HANDLE m_source = RegisterEventSourceW(nullptr, L"TQLib test");
};

TEST_F(EventSource, TakesEvents) {
    ASSERT_NE(m_source, nullptr);
    const wchar_t* strings[] = {L"one", L"two"};
    char data[] = "data";
    EXPECT_EQ(
        CodeOf(ReportEventW(m_source, EVENTLOG_ERROR_TYPE, 3, 0xCFFF4001, nullptr, 2, 4, strings, data)), 0u);
    EXPECT_EQ(
        CodeOf(ReportEventW(m_source, EVENTLOG_INFORMATION_TYPE, 0, 1, nullptr, 0, 0, nullptr, nullptr)), 0u);
}

TEST_F(EventSource, IsInvalidOnceDeregistered) {
    if (OnWine()) GTEST_SKIP() << "Wine takes any handle";
    const HANDLE source = RegisterEventSourceW(nullptr, L"TQLib test");
    EXPECT_EQ(CodeOf(DeregisterEventSource(source)), 0u);
    EXPECT_EQ(CodeOf(DeregisterEventSource(source)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(DeregisterEventSource(nullptr)), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(EventSource, NeedsAName) {
    if (OnWine()) GTEST_SKIP() << "Wine takes none";
    EXPECT_EQ(CodeOf(RegisterEventSourceW(nullptr, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(OpenEventLogW(nullptr, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(EventLog, CanBeOpenedAndClosed) {
    const HANDLE log = OpenEventLogW(nullptr, L"Application");
    ASSERT_NE(log, nullptr);
    DWORD count = 77;
    EXPECT_EQ(CodeOf(GetNumberOfEventLogRecords(log, &count)), 0u);
    EXPECT_NE(count, 77u);
    EXPECT_EQ(CodeOf(CloseEventLog(log)), 0u);
    if (OnWine()) return;  // takes any handle
    EXPECT_EQ(CodeOf(CloseEventLog(log)), DWORD{ERROR_INVALID_HANDLE});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
