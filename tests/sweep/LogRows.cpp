#include "TQLib/log/TQLog.h"
#include "TQLib/log/time/TQTime.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/text/STLString.h"
#include "platform/PlatformTest.h"
#include "support/ReadBytes.h"
#include "support/RecordingSink.h"
#include "sweep/Rows.h"

#include <algorithm>

namespace Quellan::Corvel::Test {

namespace {

// A process keeps its logs: all runs write to this one.
struct SharedLog {
    TemporaryFolder folder;
    std::wstring name = folder / L"log.tlg";
    TQLogPtr log = TQLog::GetLog(name.c_str(), 0);

    std::size_t Lines() const { return static_cast<std::size_t>(std::ranges::count(ReadBytes(name), '\n')); }
};

const std::string& EveryFailure() {
    static const std::string names = [] {
        std::string all = "new";
        for (const PlatformCall& call : FailingCalls())
            all.append(" ").append(call.name);
        return all;
    }();
    return names;
}

// Writing throws nothing, so its promise is looked at here: a record is in the file or it is counted, and
// then the next one tells of it.
SweptOperation Writes(std::string name, std::function<void(TQLog&)> write) {
    static SharedLog shared;
    return {std::move(name),
            [write] {
                const std::shared_ptr<RecordingSink> events(new RecordingSink);
                const std::size_t lines = shared.Lines();
                const ULONGLONG lostBefore = shared.log->Lost();
                return SweptRun{[write] { write(*shared.log); },
                                [=](DWORD) {
                                    const auto lost =
                                        static_cast<std::size_t>(shared.log->Lost() - lostBefore);
                                    EXPECT_EQ(shared.Lines() - lines, 2 * (1 - lost));
                                    shared.log->AddMsg(L"after it", TQLogLevel::Trace);
                                    EXPECT_EQ(shared.Lines() - lines, 4u);
                                    EXPECT_EQ(shared.log->Lost() - lostBefore, lost);
                                    EXPECT_LE(events->Entries().size(), lost);
                                }};
            },
            EveryFailure()};
}

}  // namespace

std::vector<SweptOperation> LogRows() {
    static const STLString source(L"a source whose text is not short");
    static const TQFileName object(L"folder/object");
    return {
        Swept("time of day", TQTime::CurrentTime,
              [](TQTime& time) { time.FormatTime(TQTime::DefaultTimeFormat, LOCALE_USER_DEFAULT); }),
        Writes("log record", [](TQLog& log) { log.AddMsg(L"a message", TQLogLevel::Error, source); }),
        Writes("log record with an object",
               [](TQLog& log) { log.AddMsg(L"a message", TQLogLevel::Error, &object); }),
    };
}

}  // namespace Quellan::Corvel::Test
