#include "core/TQException.h"
#include "core/TQLib.h"
#include "core/TQStdExceptions.h"
#include "support/RecordingSink.h"
#include "support/ThrownCode.h"
#include "system/TQSysProc.h"

#include <gmock/gmock.h>
#include <string>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

std::string g_trace;

void Append(void* context) {
    g_trace += static_cast<const char*>(context);
}

void* Name(const char* name) {
    return const_cast<char*>(name);
}

TEST(Library, KnowsTheApplication) {
    EXPECT_EQ(TQLib::AppName(), L"core_test") << "the executable's name until it is set";
    TQLib::SetAppName(L"shop");
    TQLib::SetAppVersion(L"2.1");
    TQLib::SetProductName(L"Shop");
    EXPECT_EQ(TQLib::AppName(), L"shop");
    EXPECT_EQ(TQEventLog::CurrentAppName(), L"shop");
    EXPECT_EQ(TQLib::AppVersion(), L"2.1");
    EXPECT_EQ(TQLib::ProductName(), L"Shop");
    TQLib::SetAppName(L"");
    EXPECT_EQ(TQLib::AppName(), L"core_test");
}

TEST(Library, RunsExitHandlersInReverseOrderOnce) {
    RecordingSink sink;
    g_trace.clear();
    TQLib::AddExitHandler(Append, Name("a"));
    TQLib::AddExitHandler([](void*) { TQLib::AddExitHandler(Append, Name("late")); }, nullptr);
    TQLib::AddExitHandler([](void*) { throw TQException(5u, L"in a handler"); }, nullptr);
    TQLib::AddExitHandler(Append, Name("b"));
    TQLib::RunExitHandlers();
    EXPECT_EQ(g_trace, "blatea")
        << "one that a handler registers runs next; one that throws does not end the rest";
    ASSERT_EQ(sink.Entries().size(), 1u);
    EXPECT_THAT(sink.Entries()[0].strings[1], testing::HasSubstr(L"in a handler"));
    TQLib::RunExitHandlers();
    EXPECT_EQ(g_trace, "blatea");
    EXPECT_EQ(ThrownCode([] { TQLib::AddExitHandler(nullptr, nullptr); }), 87u);
}

TEST(LibraryDeathTest, RunsExitHandlersAtTheEndOfTheProcess) {
    EXPECT_EXIT(
        {
            TQLib::AddExitHandler([](void*) { std::fputs("the handler ran", stderr), std::fflush(stderr); },
                                  nullptr);
            std::exit(0);
        },
        testing::ExitedWithCode(0), "the handler ran");
}

TEST(Library, CallsLowMemoryHandlersBeforeItReports) {
    const TQLib::LowMemoryHandler handler = [](void* context) noexcept {
        Append(context);
        TQLib::CallLowMemoryHandlers();
    };
    g_trace.clear();
    TQLib::AddLowMemoryHandler(handler, Name("a"));
    TQLib::AddLowMemoryHandler(handler, Name("b"));
    EXPECT_EQ(ThrownCode([] { TQStdExceptions::ThrowMemAllocError(L"where"); }), 14u);
    EXPECT_EQ(g_trace, "ab") << "in order of registration, and not from inside a handler";
    TQLib::RemoveLowMemoryHandler(handler, Name("a"));
    EXPECT_EQ(ThrownCode([] { TQException::ThrowReserved(); }), 14u);
    EXPECT_EQ(g_trace, "abb");
    TQLib::RemoveLowMemoryHandler(handler, Name("b"));
    TQLib::RemoveLowMemoryHandler(handler, Name("b"));
    TQLib::CallLowMemoryHandlers();
    EXPECT_EQ(g_trace, "abb");
}

}  // namespace
