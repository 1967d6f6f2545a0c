#include "TQLib/core/TQEventLog.h"
#include "TQLib/platform/Win32.h"
#include "support/RecordingSink.h"
#include "support/ThrownCode.h"

#include <gmock/gmock.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

TEST(EventLog, HandsEntriesToTheSinkInPlace) {
    {
        RecordingSink sink;
        TQEventLog::LogStringEvent(L"Source", 0x1234, 7, TQEventType::Warning, L"first", nullptr);
        ASSERT_EQ(sink.Entries().size(), 1u);
        EXPECT_EQ(sink.Entries()[0].type, TQEventType::Warning);
        EXPECT_EQ(sink.Entries()[0].strings, (std::vector<std::wstring>{L"first", L""}));
    }
    EXPECT_EQ(TQEventLog::SetSink(nullptr), nullptr) << "the library's own is back";
    EXPECT_EQ(ThrownCode([] { TQEventLog::LogStringEvent(nullptr, 1, 1, TQEventType::Error, L"", L""); }),
              87u);
}

}  // namespace
