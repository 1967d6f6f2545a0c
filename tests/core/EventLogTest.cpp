#include "core/TQEventLog.h"
#include "platform/Win32.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"

#include <gmock/gmock.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

void Log(const wchar_t* source) {
    TQEventLog::LogStringEvent(source, 0xCFFF4003, 1, TQEventType::Error, L"application", L"text");
}

TEST(EventLog, HandsEntriesToTheSinkInPlace) {
    {
        RecordingSink sink;
        TQEventLog::LogStringEvent(L"Source", 0x1234, 7, TQEventType::Warning, L"first", nullptr);
        ASSERT_EQ(sink.Entries().size(), 1u);
        EXPECT_EQ(sink.Entries()[0].type, TQEventType::Warning);
        EXPECT_EQ(sink.Entries()[0].strings, (std::vector<std::wstring>{L"first", L""}));
    }
    EXPECT_EQ(TQEventLog::SetSink(nullptr), nullptr) << "the library's own is back";
    EXPECT_EQ(ThrownCode([] { Log(nullptr); }), 87u);
}

TEST(EventLog, ReportsWhatThePlatformRefuses) {
    for (const char* call : {"RegisterEventSourceW", "ReportEventW"}) {
        FailCall fail(call, ERROR_ACCESS_DENIED);
        EXPECT_EQ(ThrownCode([] { Log(L"TQTest"); }), DWORD{ERROR_ACCESS_DENIED}) << call;
    }
    EXPECT_EQ(ThrownCode([] { Log(L"TQTest"); }), 0u) << "and goes on afterwards";
}

}  // namespace
