#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/text/memory/TQStdExceptions.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"
#include "support/Role.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <string>
#include <thread>

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
    EXPECT_EQ(TQLib::GetAppName(), L"core_test") << "the executable's name until it is set";
    TQLib::SetAppName(L"shop");
    TQLib::SetAppVersion(L"2.1");
    TQLib::SetProductName(L"Shop");
    EXPECT_EQ(TQLib::GetAppName(), L"shop");
    EXPECT_EQ(TQEventLog::CurrentAppName(), L"shop");
    EXPECT_EQ(TQLib::AppVersion(), L"2.1");
    EXPECT_EQ(TQLib::ProductName(), L"Shop");
    TQLib::SetAppName(L"");
    EXPECT_EQ(TQLib::GetAppName(), L"core_test");
}

TEST(Library, HandsEventsToTheSinkInPlace) {
    {
        RecordingSink sink;
        TQEventLog::LogStringEvent(L"Source", 0x1234, 7, TQEventType::Warning, L"first", nullptr);
        ASSERT_EQ(sink.Entries().size(), 1u);
        EXPECT_EQ(sink.Entries()[0].strings, (std::vector<std::wstring>{L"first", L""}));
    }
    EXPECT_EQ(TQEventLog::SetSink(nullptr), nullptr) << "the library's own is back";
    EXPECT_EQ(ThrownCode([] { TQEventLog::LogStringEvent(nullptr, 1, 1, TQEventType::Error, L"", L""); }),
              87u);
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

// What is taken away from the library while another thread is in it: the call goes on until the taking
// returns, or for as long as anybody would wait for a taking that does not wait.
class BusyCallback {
  public:
    void Run() {
        m_isEntered = true;
        for (const ULONGLONG end = GetTickCount64() + 100; !m_isTaken && GetTickCount64() < end;)
            Sleep(1);
        m_isEnded = true;
    }

    static void Called(void* self) noexcept { static_cast<BusyCallback*>(self)->Run(); }

    // `call` comes to the callback, on a thread of its own.
    void ExpectThatTakingWaits(const std::function<void()>& call, const std::function<void()>& take) {
        const std::jthread caller(call);
        while (!m_isEntered)
            std::this_thread::yield();
        take();
        const bool hasWaited = m_isEnded;
        m_isTaken = true;
        EXPECT_TRUE(hasWaited);
    }

  private:
    std::atomic<bool> m_isEntered = false, m_isTaken = false, m_isEnded = false;
};

struct BusySink : TQEventLogSink, BusyCallback {
    void Write(const TQEventLogEntry&) override { Run(); }
};

TEST(Library, TakesACallbackAwayOnlyOnceNobodyIsInIt) {
    BusyCallback exit;
    TQLib::AddExitHandler(BusyCallback::Called, &exit);
    exit.ExpectThatTakingWaits(&TQLib::RunExitHandlers,
                               [&] { TQLib::RemoveExitHandler(BusyCallback::Called, &exit); });
    BusyCallback lowMemory;
    TQLib::AddLowMemoryHandler(BusyCallback::Called, &lowMemory);
    lowMemory.ExpectThatTakingWaits(&TQLib::CallLowMemoryHandlers,
                                    [&] { TQLib::RemoveLowMemoryHandler(BusyCallback::Called, &lowMemory); });
    BusySink sink;
    TQEventLog::SetSink(&sink);
    sink.ExpectThatTakingWaits([] { TQCoreException::LogUnhandled(L"s", 1, 1, L"text"); },
                               [] { TQEventLog::SetSink(nullptr); });
}

TEST(Library, LetsACallbackTakeItselfAway) {
    g_trace.clear();
    struct Handler {
        static void Run(void* context) noexcept {
            Append(context);
            TQLib::RemoveExitHandler(Run, context);
            TQLib::RemoveLowMemoryHandler(Run, context);
        }
    };
    TQLib::AddExitHandler(Handler::Run, Name("a"));
    TQLib::RunExitHandlers();
    TQLib::AddLowMemoryHandler(Handler::Run, Name("b"));
    TQLib::AddLowMemoryHandler(Handler::Run, Name("c"));
    TQLib::CallLowMemoryHandlers();
    TQLib::CallLowMemoryHandlers();
    EXPECT_EQ(g_trace, "abc") << "and the next one is not passed over";
}

// Once the name is known it is not looked for again, so this takes a process that has not asked for it.
const Role g_nameless("nameless", [](const RoleArguments&) {
    {
        FailCall fail("GetModuleFileNameW", ERROR_PATH_NOT_FOUND, FailCall::EveryCall);
        EXPECT_EQ(TQLib::GetAppName(), L"unknown");
        STLString block;
        TQException(5u).AssembleLogOutput(nullptr, block);
        EXPECT_THAT(block.Std(), testing::HasSubstr(L"{unknown} "));
        block.Clear();
        const auto address = reinterpret_cast<const void*>(&Append);
        _TQWin32Exception(TQOSExceptionRecord{0xC0000094, 0, address, 0, 0, 0, 0})
            .AssembleLogOutput(nullptr, block);
        EXPECT_THAT(block.Std(), testing::HasSubstr(L"Owner=unknown"));
    }
    {
        FailCall exhausted("GetModuleFileNameW", ERROR_NOT_ENOUGH_MEMORY, FailCall::EveryCall);
        EXPECT_EQ(ThrownCode([] { return TQLib::GetAppName(); }), DWORD{ERROR_OUTOFMEMORY});
    }
    const TQString name = TQLib::GetAppName();
    const FailCall count("GetModuleFileNameW", 0, 0);
    EXPECT_EQ(TQLib::GetAppName(), name);
    EXPECT_EQ(count.Calls(), 0u);
    return testing::Test::HasFailure() ? 1 : 0;
});

TEST(Library, IsCalledUnknownUntilItsFileIsFoundOut) {
    EXPECT_EQ(RoleProcess("nameless").ExitCode(), 0);
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
