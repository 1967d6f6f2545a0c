#include "TQLib/core/TQException.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQThread.h"
#include "TQLib/threads/TQThreadCPUTimer.h"
#include "platform/PlatformTest.h"
#include "support/FailCall.h"
#include "support/RecordingSink.h"
#include "support/Worker.h"

#include <atomic>
#include <gmock/gmock.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned int Unexpected = 0x8000FFFF;

// A thread whose steps are the functions that a test gives it; `steps` tells which of them ran.
class TestThread : public TQThread {
  public:
    using TQThread::TQThread;
    ~TestThread() override { EndThread(); }

    std::function<unsigned()> onStart = [] { return 0u; };
    std::function<unsigned(BYTEBuf&)> runWork = [](BYTEBuf&) { return 0u; };
    std::function<unsigned(unsigned)> onStop = [](unsigned result) { return result; };

    std::vector<std::string> Steps() const {
        const TQThreadSynch::TQSynchLock guard(LockObj());
        return m_steps;
    }
    const TQEvent& StopSignal() const { return StopEvent(); }
    // What the platform says.
    DWORD ExitCode() const {
        DWORD code = 0;
        EXPECT_TRUE(GetExitCodeThread(ThreadHandle(), &code));
        return code;
    }
    // Starts and waits for the end.
    DWORD Run() {
        Start();
        return WaitForComplete(INFINITE);
    }

  protected:
    unsigned int OnStart(const BYTEBuf&) override {
        Add("OnStart");
        return onStart();
    }
    unsigned int RunWork(BYTEBuf& data) override {
        Add("RunWork");
        return runWork(data);
    }
    unsigned int OnStop(const BYTEBuf& data, const unsigned int& result) override {
        Add("OnStop");
        return TQThread::OnStop(data, onStop(result));
    }

  private:
    void Add(const char* step) {
        const TQThreadSynch::TQSynchLock guard(LockObj());
        m_steps.push_back(step);
    }

    std::vector<std::string> m_steps;
};

// Works until it is stopped.
class PatientThread : public TestThread {
  public:
    PatientThread() {
        runWork = [this](BYTEBuf&) {
            m_atWork.Set();
            StopSignal().Wait(INFINITE);
            return 9u;
        };
    }

    ~PatientThread() override { EndThread(); }

    // Waits until the work of the run has begun.
    void AwaitWork() const { EXPECT_TRUE(m_atWork.Wait(INFINITE)); }

  private:
    const TQEvent m_atWork{false};
};

TEST(Thread, RunsItsStepsInOrder) {
    TestThread thread("data", 4);
    DWORD idInside = 0;
    std::wstring trap;
    thread.runWork = [&](BYTEBuf& data) {
        idInside = GetCurrentThreadId();
        EXPECT_EQ(thread.ID(), idInside);
        EXPECT_TRUE(thread.ThreadRunning());
        EXPECT_EQ(std::string(data.begin(), data.end()), "data");
        trap = _TQWin32Exception::ThreadHandler(idInside)->Name();
        return 7u;
    };
    thread.onStop = [](unsigned result) { return result + 1; };
    EXPECT_EQ(thread.ID(), 0u);
    EXPECT_EQ(thread.ThreadHandle(), nullptr);
    EXPECT_EQ(thread.Run(), 8u);
    EXPECT_THAT(thread.Steps(), ElementsAre("OnStart", "RunWork", "OnStop"));
    EXPECT_EQ(thread.ResultCode(), 8u);
    EXPECT_EQ(thread.ResultMessage(), L"");
    EXPECT_FALSE(thread.ThreadRunning());
    EXPECT_EQ(thread.ID(), idInside);
    EXPECT_NE(idInside, GetCurrentThreadId());
    EXPECT_EQ(trap, L"TQThread::RunThread");
    EXPECT_EQ(thread.ExitCode(), 8u);
    thread.runWork = [](BYTEBuf& data) {
        data.Append('b');
        return static_cast<unsigned>(data.Size());
    };
    EXPECT_EQ(thread.Run(), 6u);
    EXPECT_EQ(thread.Run(), 7u) << "the data are kept for the next run";
}

TEST(Thread, ThatIsToStopEndsBeforeItStartsAnew) {
    PatientThread thread;
    std::atomic<bool> mayEnd = false;
    thread.onStop = [&](unsigned result) {
        while (!mayEnd)
            Sleep(1);
        return result;
    };
    thread.Start();
    const DWORD id = thread.ID();
    thread.AwaitWork();
    thread.Start();
    EXPECT_EQ(thread.ID(), id) << "it runs already";
    thread.Stop();
    EXPECT_TRUE(thread.Stopped());
    Worker restarter([&] { thread.Start(); });
    EXPECT_EQ(restarter.WaitForComplete(NeverMs), DWORD{WAIT_TIMEOUT});
    mayEnd = true;
    restarter.Join();
    EXPECT_TRUE(thread.ThreadRunning());
    thread.AwaitWork();
    EXPECT_FALSE(thread.Stopped());
    EXPECT_EQ(thread.ResultCode(), 0u) << "of the run before";
    EXPECT_THAT(thread.Steps(), ElementsAre("OnStart", "RunWork", "OnStop", "OnStart", "RunWork"));
    thread.Restart();
    thread.AwaitWork();
    EXPECT_EQ(thread.Steps().size(), 8u);
    EXPECT_EQ(thread.StopAndWait(INFINITE), 9u);
}

TEST(Thread, WhoseStartRefusesDoesNotStart) {
    TestThread thread;
    thread.onStart = [] { return 5u; };
    EXPECT_EQ(Thrown([&] { thread.Start(); }), Failure(995, L"Thread failed to start properly."));
    EXPECT_EQ(thread.WaitForComplete(INFINITE), 5u);
    EXPECT_THAT(thread.Steps(), ElementsAre("OnStart"));
    EXPECT_FALSE(thread.ThreadRunning());
    thread.onStart = [] { return 0u; };
    EXPECT_EQ(thread.Run(), 0u) << "the next start is a new one";
}

TEST(Thread, IsNotStartedWhileAStartIsUnderWay) {
    TestThread thread;
    const TQEvent inStart(true), goOn(true);
    thread.onStart = [&] {
        inStart.Set();
        goOn.Wait(INFINITE);
        return 0u;
    };
    Worker starter([&] { thread.Start(); });
    inStart.Wait(INFINITE);
    EXPECT_EQ(Thrown([&] { thread.Start(); }), Failure(1247, L"Thread Start Failed - Already started."));
    goOn.Set();
    starter.Join();
    EXPECT_EQ(thread.WaitForComplete(INFINITE), 0u);
    EXPECT_THAT(thread.Steps(), ElementsAre("OnStart", "RunWork", "OnStop"));
}

TEST(Thread, GoesOnAfterAnExceptionInAnyStep) {
    const RecordingSink log;
    TestThread thread;
    thread.onStart = []() -> unsigned { throw TQException(11u, L"start"); };
    thread.onStop = [](unsigned) -> unsigned {
        TQException e(22u, L"stop");
        e.SetAction(L"Open");
        throw e;
    };
    EXPECT_EQ(thread.Run(), 22u) << "the last step's exception gives the result";
    EXPECT_THAT(thread.Steps(), ElementsAre("OnStart", "RunWork", "OnStop"));
    EXPECT_EQ(thread.ResultMessage(), L"stop");
    ASSERT_EQ(log.Entries().size(), 2u);
    EXPECT_EQ(log.Entries()[0].eventId, 0xCFFF4001u);
    EXPECT_EQ(log.Entries()[0].category, 2);
    EXPECT_EQ(log.Entries()[0].type, TQEventType::Error);
    EXPECT_THAT(log.Entries()[0].strings[1], HasSubstr(L"start ("));
    EXPECT_THAT(log.Entries()[0].strings[1], HasSubstr(L"Processing Thread::OnStart"));
    EXPECT_THAT(log.Entries()[1].strings[1], HasSubstr(L" Action=Open in Processing Thread::OnStop"));

    thread.onStart = [] { return 0u; };
    thread.onStop = [](unsigned result) { return result; };
    EXPECT_EQ(thread.Run(), 0u);
    EXPECT_EQ(thread.ResultMessage(), L"") << "nothing is left of the run before";
}

TEST(Thread, LogsNoExceptionThatIsMarked) {
    const RecordingSink log;
    for (int mark = 0; mark < 3; ++mark) {
        TestThread thread;
        thread.runWork = [&](BYTEBuf&) -> unsigned {
            const TQException e(6u, L"marked");
            if (mark == 0) e.SetLogged();
            if (mark == 1) e.SetEventLogged();
            if (mark == 2) e.SetDontLog();
            throw e;
        };
        EXPECT_EQ(thread.Run(), 6u);
        EXPECT_EQ(thread.ResultMessage(), L"marked");
    }
    EXPECT_TRUE(log.Entries().empty());
}

TEST(Thread, LogsAnyOtherExceptionAsUnhandled) {
    const struct {
        void (*raise)();
        unsigned code;
        const wchar_t *message, *logged;
    } rows[] = {
        {[] { throw std::runtime_error("foreign"); }, Unexpected,
         L"Unknown exception occurred in Processing Thread::RunWork with message 'foreign'.", L"foreign"},
        {[] { RaiseException(0xC0000005, 0, 0, nullptr); }, 0xC0000005, L"A System Exception Occurred.",
         L"OS Exception-Access Violation @ "},
        {[] { throw 7; }, Unexpected,
         L"Unknown exception occurred in Processing Thread::RunWork with no detail message.", L"no detail"}};
    for (const auto& row : rows) {
        const RecordingSink log;
        TestThread thread;
        thread.runWork = [&](BYTEBuf&) { return row.raise(), 0u; };
        EXPECT_EQ(thread.Run(), row.code);
        EXPECT_EQ(thread.ResultMessage(), row.message);
        EXPECT_THAT(thread.Steps(), ElementsAre("OnStart", "RunWork", "OnStop"));
        ASSERT_EQ(log.Entries().size(), 1u);
        EXPECT_EQ(log.Entries()[0].source, L"TQLib");
        EXPECT_EQ(log.Entries()[0].eventId, 0xCFFF4002u);
        EXPECT_EQ(log.Entries()[0].category, 9);
        EXPECT_THAT(log.Entries()[0].strings[1], StartsWith(L"Processing Thread::RunWork\r\n"));
        EXPECT_THAT(log.Entries()[0].strings[1], HasSubstr(row.logged));
    }
}

TEST(Thread, EndsWithTheCodeOfAFailureBetweenItsSteps) {
    std::optional<FailCall> fail;
    TestThread thread;
    thread.onStart = [&] {
        fail.emplace("SetEvent", ERROR_GEN_FAILURE);
        return 0u;
    };
    EXPECT_EQ(ThrownCode([&] { thread.Start(); }), 995u);
    EXPECT_EQ(thread.WaitForComplete(INFINITE), DWORD{ERROR_GEN_FAILURE});
    EXPECT_EQ(thread.ExitCode(), DWORD{ERROR_GEN_FAILURE});
    EXPECT_FALSE(thread.ThreadRunning());
    EXPECT_THAT(thread.Steps(), ElementsAre("OnStart"));
}

TEST(SuspendedThread, RunsOnceItIsResumed) {
    TestThread thread;
    thread.Start(true);
    EXPECT_EQ(thread.WaitForComplete(NeverMs), DWORD{WAIT_TIMEOUT});
    EXPECT_TRUE(thread.Steps().empty());
    DWORD previous = 0;
    thread.Resume(&previous);
    EXPECT_EQ(previous, 1u);
    EXPECT_EQ(thread.WaitForComplete(INFINITE), 0u);
    EXPECT_EQ(thread.Steps().size(), 3u);
    EXPECT_EQ(ThrownCode([&] { thread.Resume(); }), 0u) << "one that has ended is none the worse";

    thread.onStart = [] { return 5u; };
    thread.Start(true);
    EXPECT_EQ(ThrownCode([&] { thread.Resume(nullptr); }), 995u);
}

TEST(SuspendedThread, EndsWithoutAStepWhereItIsStartedAnewOrDestroyed) {
    std::atomic<int> starts = 0;
    {
        TestThread thread;
        thread.onStart = [&] { return ++starts, 0u; };
        thread.Start(true);
        thread.Start();
        EXPECT_EQ(thread.WaitForComplete(INFINITE), 0u);
        EXPECT_EQ(thread.Steps().size(), 3u);
        thread.Start(true);
    }
    EXPECT_EQ(starts, 1);
}

TEST(Thread, IsStoppedAndWaitedForWhenItIsDestroyed) {
    std::atomic<bool> hasEnded = false;
    {
        PatientThread thread;
        thread.onStop = [&](unsigned result) {
            Sleep(NeverMs);
            hasEnded = true;
            return result;
        };
        thread.Start();
        SetLastError(1234);
    }
    EXPECT_TRUE(hasEnded);
    EXPECT_EQ(GetLastError(), 1234u);
}

TEST(Thread, MayDestroyItsObjectItself) {
    for (const bool inWork : {true, false}) {
        auto* const thread = new TestThread;
        const auto destroy = [thread](auto) {
            delete thread;
            return 4u;
        };
        if (inWork)
            thread->runWork = [destroy](BYTEBuf&) { return destroy(0); };
        else
            thread->onStop = destroy;
        HANDLE handle = nullptr;
        thread->Start(true);
        ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), thread->ThreadHandle(), GetCurrentProcess(), &handle,
                                    0, FALSE, DUPLICATE_SAME_ACCESS));
        ResumeThread(handle);
        WaitForSingleObject(handle, INFINITE);
        DWORD exitCode = 0;
        EXPECT_TRUE(GetExitCodeThread(handle, &exitCode));
        EXPECT_EQ(exitCode, 4u);
        CloseHandle(handle);
    }
}

TEST(Thread, CannotWaitForItself) {
    TestThread thread;
    std::vector<DWORD> codes;
    thread.runWork = [&](BYTEBuf&) {
        codes.push_back(ThrownCode([&] { thread.WaitForComplete(0); }));
        codes.push_back(ThrownCode([&] { thread.StopAndWait(INFINITE); }));
        codes.push_back(ThrownCode([&] { thread.Start(); }));
        codes.push_back(ThrownCode([&] { thread.Restart(); }));
        return 0u;
    };
    EXPECT_EQ(thread.Run(), 0u);
    EXPECT_THAT(codes, ElementsAre(1131u, 1131u, 1131u, 1131u));
}

TEST(Thread, IsWaitedForUpToATime) {
    PatientThread thread;
    EXPECT_EQ(thread.WaitForComplete(INFINITE), 0u) << "it was never started";
    thread.Start();
    EXPECT_EQ(thread.WaitForComplete(0), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(thread.WaitForComplete(1), DWORD{WAIT_TIMEOUT});
    {
        const FailCall fail("WaitForSingleObject", ERROR_NOT_ENOUGH_MEMORY, 1, WAIT_FAILED);
        EXPECT_EQ(ThrownCode([&] { thread.WaitForComplete(0); }), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
    EXPECT_EQ(thread.StopAndWait(INFINITE), 9u);
    EXPECT_EQ(thread.WaitForComplete(0), 9u);
}

TEST(Thread, CountsAsNeverStartedWhereItCannotBeCreated) {
    TestThread thread;
    thread.Run();
    {
        const FailCall fail("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(Thrown([&] { thread.Start(); }),
                  Failure(ERROR_NOT_ENOUGH_MEMORY, L"Thread Creation Failed."));
    }
    EXPECT_EQ(thread.ID(), 0u);
    EXPECT_EQ(thread.ThreadHandle(), nullptr);
    EXPECT_EQ(ThrownCode([&] { thread.Resume(); }), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(thread.Run(), 0u);
}

// A function whose frame needs more than the stack that threads have by default.
[[gnu::noinline]] unsigned NeedsStack() {
    volatile BYTE block[6 * 1024 * 1024];
    for (std::size_t i = 0; i < sizeof block; i += 1024)
        block[i] = 1;
    return block[1024];
}

TEST(Thread, HasTheStackThatWasAskedFor) {
    TestThread thread;
    thread.runWork = [](BYTEBuf&) { return NeedsStack(); };
    thread.SetStackSize(16 * 1024 * 1024, true);
    EXPECT_EQ(thread.Run(), 1u);
}

TEST(Thread, TellsItsTimes) {
    PatientThread thread;
    EXPECT_TRUE(thread.StartTime().IsNull());
    EXPECT_EQ(thread.RunningTime(), TQTimeSpan());
    EXPECT_EQ(thread.CPUTime(), TQTimeSpan());
    TQTimeSpan used;
    thread.onStop = [&](unsigned) {
        volatile unsigned long work = 0;
        const TQThreadCPUTimer timer;
        while (timer.Elapsed() < TQTimeSpan::FromMilliseconds(20))
            work = work + 1;
        used = timer.Elapsed();
        return 0u;
    };
    const TQTime before = TQTime::CurrentTime();
    thread.Start();
    EXPECT_LE(before, thread.StartTime());
    EXPECT_LE(thread.StartTime(), TQTime::CurrentTime());
    thread.StopAndWait(INFINITE);
    if (!OnWine()) {  // which forgets the times of a thread that has ended
        EXPECT_GE(thread.CPUTime(), used);
    }
    const TQTimeSpan running = thread.RunningTime();
    EXPECT_GE(running, TQTimeSpan());
    EXPECT_LE(running, TQTime::CurrentTime() - before + TQTimeSpan::FromMilliseconds(1));
}

TEST(Thread, TellsWhetherItHasAToken) {
    EXPECT_FALSE(TQThread::ThreadHasToken());
    for (const DWORD code : {DWORD{ERROR_ACCESS_DENIED}, DWORD{ERROR_CANT_OPEN_ANONYMOUS}}) {
        const FailCall fail("OpenThreadToken", code);
        EXPECT_TRUE(TQThread::ThreadHasToken()) << "there is one that can't be opened: " << code;
    }
    const FailCall fail("OpenThreadToken", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(ThrownCode([] { TQThread::ThreadHasToken(); }), DWORD{ERROR_NOT_ENOUGH_MEMORY});
}

}  // namespace
