#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "support/ThrownCode.h"

#include <array>
#include <gtest/gtest.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

TEST(EventSource, NeedsNoRegistration) {
    EXPECT_EQ(ThrownCode([] { TQEventLog::InstallSource(L"TQTest", L"file", 1); }),
              DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(ThrownCode([] { TQEventLog::RemoveSource(L"TQTest"); }), DWORD{ERROR_NOT_SUPPORTED});
}

TEST(EventSource, WritesEntriesThatTheEventLogGivesBack) {
    TQEventLog::LogStringEvent(L"TQTest", 0xCFFF4003, 7, TQEventType::Warning, L"first", L"zweiter \u00FC");
    const HANDLE log = OpenEventLogW(nullptr, L"Application");
    alignas(EVENTLOGRECORD) std::array<BYTE, 4096> buffer;
    DWORD read = 0, needed = 0;
    ASSERT_TRUE(ReadEventLogW(log, EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, buffer.data(),
                              buffer.size(), &read, &needed));
    CloseEventLog(log);
    const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data());
    EXPECT_EQ(record.EventID, 0xCFFF4003u);
    EXPECT_EQ(record.EventCategory, 7);
    EXPECT_EQ(record.EventType, EVENTLOG_WARNING_TYPE);
    ASSERT_EQ(record.NumStrings, 2);
    const auto* first = reinterpret_cast<const wchar_t*>(buffer.data() + record.StringOffset);
    EXPECT_STREQ(first, L"first");
    EXPECT_STREQ(first + 6, L"zweiter \u00FC");
}

}  // namespace
