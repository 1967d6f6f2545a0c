#include "TQLib/core/TQLib.h"
#include "TQLib/threads/TQThreadPool.h"
#include "TQLib/threads/TQWin32AsynchRoot.h"
#include "TQLib/threads/TQWorkPool.h"
#include "support/RecordingSink.h"
#include "support/Role.h"
#include "threads/TestPool.h"

#include <gmock/gmock.h>
#include <set>
#include <stdexcept>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr unsigned Stopped = 0x80000015;

// What is to be true of a pool that was stopped.
void ExpectEnded(const _TQThreadPoolBase& pool, const Script& script) {
    EXPECT_EQ(script.handlers, 0);
    EXPECT_EQ(ScriptedThread::Objects(), 0);
    EXPECT_EQ(pool.WorkCount(), 0u);
    EXPECT_EQ(pool.ThreadsAllocated(), 0u);
    EXPECT_EQ(pool.ThreadsBusy(), 0u);
    EXPECT_EQ(pool.ThreadsWaiting(), 0u);
    EXPECT_FALSE(pool.ThreadRunning());
}

class PoolOfTwo : public testing::Test {
  protected:
    Script script;
    TestPool<2> pool{script};
};
using ThreadOfAPool = PoolOfTwo;

TEST(ThreadPoolLimits, FollowProcessorsAndRequest) {
    const struct {
        DWORD processors, requested, minimum, maximum;
    } rows[] = {
        {1, 0, 1, 2},           {1, 1, 1, 2},    {1, 2, 1, 2},    {1, 16, 1, 16},    {1, 17, 1, 16},
        {2, 0, 2, 4},           {2, 3, 2, 3},    {8, 0, 8, 16},   {8, 1, 8, 16},     {8, 100, 8, 16},
        {8, 0xFFFFFFFF, 8, 16}, {32, 0, 32, 64}, {32, 1, 32, 64}, {32, 100, 32, 16}, {0, 0, 1, 2},
    };
    for (const auto& row : rows) {
        const auto limits = _TQThreadPoolBase::LimitsFor(row.processors, row.requested);
        EXPECT_EQ(limits.minimum, row.minimum) << row.processors << " processors, " << row.requested;
        EXPECT_EQ(limits.maximum, row.maximum) << row.processors << " processors, " << row.requested;
    }
}

TEST(ThreadPool, HandsEachItemOverAsItWasPosted) {
    std::vector<std::string> posted;
    for (const std::size_t size : {0, 1, 64, 65, 255, 256, 257, 70'000})
        posted.push_back(std::string(size, static_cast<char>('a' + posted.size())));
    Script script;
    TestPool<2> pool(script);
    for (std::string work : posted) {
        EXPECT_TRUE(pool.Post(work));
        work.assign(work.size(), 'X');
    }
    pool.AwaitQuiet();
    EXPECT_THAT(script.Items(), testing::UnorderedElementsAreArray(posted));
    EXPECT_THAT(script.Errors(), IsEmpty());
    EXPECT_EQ(ThrownCode([&] { pool.AddWork(nullptr, 1); }), 87u);
}

TEST(ThreadPool, GivesEachThreadThePoolData) {
    class DataThread : public TQPoolThread {
      public:
        ~DataThread() override { EndThread(); }

      protected:
        unsigned int OnStart(const BYTEBuf& data) override { return data.Size() == 4 ? 0 : 1; }
        void OnWork(BYTEBuf&) override {}
    };
    TQThreadPool<DataThread> with("four", 4), without;
    EXPECT_TRUE(with.AddWork(nullptr, 0));
    EXPECT_EQ(ThrownCode([&] { without.AddWork(nullptr, 0); }), 995u) << "the thread's OnStart refused";
}

TEST(ThreadPool, UsesAllItsThreadsForABurst) {
    constexpr unsigned count = 10'000;
    Script script;
    Gate gate;
    script.onWork = [&](const std::string& work) {
        if (work.empty()) gate.Pass();
    };
    TestPool<16> pool(script);
    ASSERT_EQ(pool.MaxThreads(), 16u);
    for (unsigned i = 0; i < count; ++i)
        pool.Post("");
    EXPECT_EQ(pool.ThreadsAllocated(), 16u) << "made by the posts, not by and by";
    Until([&] { return gate.Came() == 16; });
    EXPECT_EQ(pool.ThreadsBusy(), 16u);
    EXPECT_EQ(pool.ThreadsWaiting(), 0u);
    EXPECT_EQ(pool.WorkCount(), count - 16);
    gate.Open();
    pool.AwaitQuiet();
    EXPECT_EQ(script.Items().size(), count);
}

TEST(ThreadPool, MakesNoThreadWhereOneWaits) {
    Script script;
    TestPool<16> pool(script);
    for (int i = 0; i < 20; ++i) {
        pool.Post("a");
        pool.AwaitQuiet();
    }
    EXPECT_EQ(script.started, 1);
}

TEST_F(PoolOfTwo, ThreadsPostToTheirOwnPool) {
    script.onWork = [](const std::string& work) {
        if (!work.empty())
            ScriptedThread::Current().PostPoolWork(work.data(), static_cast<DWORD>(work.size() - 1));
    };
    pool.Post("abc");
    pool.AwaitQuiet();
    EXPECT_THAT(script.Items(), ElementsAre("abc", "ab", "a", ""));
}

TEST_F(PoolOfTwo, TakesWhatItsThreadsPostAsTheyStart) {
    script.onStart = [] {
        ScriptedThread::Current().PostPoolWork("start", 5);
        return 0u;
    };
    pool.Post("first");
    Until([&] { return script.Items().size() == 1u + static_cast<unsigned>(script.started); });
    EXPECT_THAT(script.Items(), testing::Contains("start"));
}

TEST_F(PoolOfTwo, ReportsWhatLeavesAHandlerAndGoesOn) {
    std::set<DWORD> ids;
    script.onWork = [&](const std::string& work) {
        ids.insert(GetCurrentThreadId());
        if (work == "library") throw TQAppException(1234u, L"It went wrong.");
        if (work == "standard") throw std::runtime_error("foreign");
        if (work == "number") throw 7;
        if (work == "fault") RaiseException(0xC0000005, 0, 0, nullptr);
    };
    for (const char* const work : {"library", "standard", "number", "fault", "last"}) {
        pool.Post(work);
        pool.AwaitQuiet();
    }
    EXPECT_EQ(script.Items().back(), "last");
    EXPECT_EQ(ids.size(), 1u) << "the same thread all the time";
    const auto errors = script.Errors();
    ASSERT_EQ(errors.size(), 4u);
    for (const PoolError& error : errors)
        EXPECT_EQ(error.thread, *ids.begin());
    EXPECT_EQ(errors[0].code, 1234u);
    EXPECT_EQ(errors[0].message, L"It went wrong.");
    EXPECT_EQ(errors[0].work, "library");
    EXPECT_EQ(errors[1].code, 0x8000FFFFu);
    EXPECT_THAT(errors[1].message, HasSubstr(L"foreign"));
    EXPECT_EQ(errors[2].code, 0x8000FFFFu);
    EXPECT_EQ(errors[3].code, 0xC0000005u);
    EXPECT_EQ(errors[3].work, "fault");
}

TEST(ThreadPool, LogsFailuresAsThreadsDo) {
    const RecordingSink log;
    Script script;
    script.onWork = [&](const std::string& work) {
        if (work == "library") throw TQAppException(1234u, L"It went wrong.");
        throw 7;
    };
    TestPool<2, TQThreadPoolExceptionHandler> pool(script);
    for (const char* const work : {"library", "number"}) {
        pool.Post(work);
        pool.AwaitQuiet();
    }
    ASSERT_EQ(log.Entries().size(), 2u);
    EXPECT_EQ(log.Entries()[0].source, L"TQLib");
    EXPECT_EQ(log.Entries()[0].eventId, 0xCFFF4001u);
    EXPECT_THAT(log.Entries()[0].strings[1], HasSubstr(L"It went wrong."));
    EXPECT_EQ(log.Entries()[1].source, L"TQLib");
    EXPECT_EQ(log.Entries()[1].eventId, 0xCFFF4002u);
}

TEST(ThreadPool, SurvivesAPolicyThatThrows) {
    struct Throwing {
        static void ReportException(DWORD, unsigned, const wchar_t*, const void*, ULONGLONG, const void*,
                                    ULONGLONG) {
            throw TQException(5u, L"policy");
        }
    };
    const RecordingSink log;
    Script script;
    script.onWork = [&](const std::string& work) {
        if (work == "a") throw 7;
    };
    TestPool<2, Throwing> pool(script);
    pool.Post("a");
    pool.Post("b");
    pool.AwaitQuiet();
    EXPECT_EQ(script.Items().size(), 2u);
    ASSERT_EQ(log.Entries().size(), 1u);
    EXPECT_EQ(log.Entries()[0].eventId, 0xCFFF4002u);
}

TEST_F(PoolOfTwo, TakesNoWorkOnceItIsStopped) {
    pool.Post("a");
    pool.AwaitQuiet();
    pool.StopThreads();
    ExpectEnded(pool, script);
    EXPECT_EQ(ThrownCode([&] { pool.Post("b"); }), Stopped);
    EXPECT_EQ(ThrownText([&] { pool.Post("b", 1); }),
              L"Thread pool has been stopped - no further work can be done on the pool.");
    pool.StopThreads();
    ExpectEnded(pool, script);
    EXPECT_THAT(script.Items(), ElementsAre("a"));
}

TEST_F(PoolOfTwo, StoppingDropsWhatNoThreadHasTaken) {
    Gate gate;
    script.onWork = [&](const std::string&) { gate.Pass(); };
    const DWORD requestor = pool.GetNewRequestorID();
    for (int i = 0; i < 2'000; ++i)
        pool.Post(i < 2 ? "taken" : "left", i % 2 ? requestor : 0);
    Until([&] { return gate.Came() == 2; });
    Worker stopper([&] { pool.StopThreads(); });
    Until([&] { return pool.WorkCount() == 0; });
    EXPECT_EQ(stopper.WaitForComplete(NeverMs), DWORD{WAIT_TIMEOUT}) << "items are at work";
    gate.Open();
    stopper.Join();
    ExpectEnded(pool, script);
    EXPECT_THAT(script.Items(), ElementsAre("taken", "taken"));
}

TEST(ThreadPool, StopsFromWithinHandlersOfItsOwn) {
    Script script;
    TestPool<4> pool(script);
    Gate gate;
    std::atomic<int> arrived = 0, returned = 0;
    script.onWork = [&](const std::string& work) {
        if (work == "stop") {
            ++arrived;
            Until([&] { return arrived == 2 && gate.Came() == 1; });
            pool.StopThreads();
            pool.StopThreads();
            ++returned;
        } else if (work == "gate") {
            gate.Pass();
        }
    };
    pool.Post("stop");
    pool.Post("stop");
    pool.Post("gate");
    Until([&] { return gate.Came() == 1 && ThrownCode([&] { pool.Post("more"); }) == Stopped; });
    EXPECT_EQ(returned, 0) << "another handler runs";
    gate.Open();
    Until([&] { return returned == 2; });
    pool.StopThreads();
    ExpectEnded(pool, script);
}

// The pool is still at work when the process ends; its handlers would crash it if they went on.
Role g_exitRole("exit_with_busy_pool", [](const RoleArguments&) {
    static Script& script = *new Script;
    static TestPool<4>& pool = *new TestPool<4>(script);
    script.onWork = [](const std::string&) {
        Sleep(1);
        if (ThrownCode([] { pool.Post(""); }) != Stopped) return;
    };
    for (int i = 0; i < 100; ++i)
        pool.Post("");
    TQLib::AddExitHandler([](void*) { pool.StopThreads(); }, nullptr);
    return 17;
});

TEST(ThreadPool, EndsWithTheProcess) {
    EXPECT_EQ(RoleProcess("exit_with_busy_pool").ExitCode(), 17);
}

TEST(ThreadPool, LeavesTheLastErrorAlone) {
    Script script;
    {
        TestPool<2> pool(script);
        pool.Post("a");
        SetLastError(77);
    }
    EXPECT_EQ(GetLastError(), 77u);
}

TEST(ThreadPool, IsNotMadeWithoutWhatItNeeds) {
    Script script;
    const auto make = [&] { TestPool<2> pool(script); };
    {
        const FailCall fail("CreateIoCompletionPort", ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(ThrownText(make), L"Completion port could not be created for thread pool.");
    }
    {
        // The first event is the one by which every thread is stopped.
        const FailCall fail("CreateEventW", ERROR_NOT_ENOUGH_MEMORY, 2);
        EXPECT_EQ(ThrownText(make), L"Wakeup event could not be created for thread pool.");
    }
    std::set<std::wstring> messages;
    for (unsigned nth = 1;; ++nth) {
        const FailAllocation fail(nth);
        const std::wstring message = ThrownText(make);
        if (!fail.Fired()) break;
        messages.insert(message);
    }
    EXPECT_EQ(messages.count(L"Allocation of thread pool requestor ID queue failed"), 1u);
}

TEST_F(PoolOfTwo, RefusesAnItemThatThePortRefuses) {
    pool.Post("before");
    pool.AwaitQuiet();
    const DWORD requestor = pool.GetNewRequestorID();
    for (const DWORD id : {DWORD{0}, requestor}) {
        const auto post = [&] { pool.Post("refused", id); };
        {
            const FailCall fail("PostQueuedCompletionStatus", ERROR_NO_SYSTEM_RESOURCES);
            EXPECT_EQ(ThrownText(post), L"Posting of the thread pool work failed.");
        }
        EXPECT_EQ(pool.WorkCount(), 0u);
        pool.Post("after", id);
        pool.AwaitQuiet();
    }
    EXPECT_THAT(script.Items(), ElementsAre("before", "after", "after"));
    EXPECT_TRUE(pool.CanStop()) << "no post counts as in flight";
}

// A pool of two, one of whose threads stays in a handler while the other counts its allocations.
class AllocationPool : public testing::Test {
  protected:
    static constexpr DWORD Size = _TQWin32AsynchRoot::RecycledBytes;
    static inline std::atomic<unsigned> s_allocations = 0;  // of the pool thread, at its last item
    static inline std::atomic<Gate*> s_gate = nullptr;

    class Thread : public TQPoolThread {
      public:
        ~Thread() override { EndThread(); }

      protected:
        unsigned int OnStart(const BYTEBuf&) override {
            m_count = std::make_unique<FailAllocation>(0);
            return 0;
        }
        void OnWork(BYTEBuf& data) override {
            s_allocations = m_count->Calls();
            if (data.IsEmpty()) s_gate.load()->Pass();
        }
        unsigned int OnStop(const BYTEBuf&, const unsigned int& result) override {
            m_count.reset();
            return result;
        }

      private:
        std::unique_ptr<FailAllocation> m_count;
    };

    AllocationPool() { Hold(stays); }
    ~AllocationPool() override { stays.Open(); }
    void Hold(Gate& gate) {
        s_gate = &gate;
        pool.AddWork(nullptr, 0);
        Until([&] { return gate.Came() == 1; });
    }
    // How many allocations posting and running so many items takes, all of which are queued at once.
    unsigned Allocations(unsigned items, DWORD requestor) {
        Gate gate;
        Hold(gate);
        const unsigned before = s_allocations;
        unsigned posting;
        {
            const FailAllocation count(0);
            for (unsigned i = 0; i < items; ++i)
                pool.AddWork(item, Size, requestor);
            posting = count.Calls();
        }
        gate.Open();
        Until([&] { return pool.WorkCount() == 0 && pool.ThreadsBusy() == 1; });
        return posting + s_allocations - before;
    }

    const BYTE item[Size] = {};
    Gate stays;
    TQThreadPool<Thread, TQThreadPoolExceptionHandler, 2> pool;
};

TEST_F(AllocationPool, PostsAndRunsWhatItHasSeenTheLikeOfWithoutAny) {
    for (const DWORD requestor : {DWORD{0}, pool.GetNewRequestorID()}) {
        Allocations(1'000, requestor);
        EXPECT_EQ(Allocations(500, requestor), 0u);
    }
}

TEST(AsynchRoot, HandsTheRecordsOfEndedThreadsOn) {
    constexpr unsigned count = 1'000, threads = 40;
    unsigned allocations = 0;
    for (unsigned i = 0; i < threads; ++i)
        Worker([&] {
            std::vector<_TQWin32AsynchRoot::OVERLAPPED_DATA*> records(count);
            const FailAllocation counter(0);
            for (auto& record : records)
                record = _TQWin32AsynchRoot::AllocOverlapped(150, true, 0);
            allocations += counter.Calls();
            for (auto* const record : records)
                _TQWin32AsynchRoot::FreeOverlapped(record);
        }).Join();
    EXPECT_LT(allocations, 3 * count) << "not as many as for each thread anew";
}

TEST_F(PoolOfTwo, DoesWithTheThreadsThatItHas) {
    Gate gate;
    script.onWork = [&](const std::string&) { gate.Pass(); };
    {
        // After the pool's own thread and the first for its items, for either post.
        const FailCall fail("CreateThread", ERROR_NOT_ENOUGH_MEMORY, 3);
        pool.Post("a");
        Until([&] { return gate.Came() == 1; });
        EXPECT_TRUE(pool.Post("b"));
    }
    EXPECT_EQ(pool.ThreadsAllocated(), 1u);
    ASSERT_EQ(script.Errors().size(), 1u);
    EXPECT_EQ(script.Errors()[0].code, unsigned{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(script.Errors()[0].message, L"Thread Creation Failed.");
    EXPECT_EQ(script.Errors()[0].thread, 0u);
    Until([&] { return gate.Came() == 2; });
    EXPECT_EQ(pool.ThreadsAllocated(), 2u) << "made up for by the pool itself";
    gate.Open();
    pool.AwaitQuiet();
}

TEST_F(PoolOfTwo, GoesOnAfterAFailureToTakeWork) {
    script.onWork = [](const std::string& work) {
        if (work == "fail")
            ScriptedThread::FailNext<FailCall>("GetQueuedCompletionStatus", DWORD{ERROR_NO_SYSTEM_RESOURCES});
    };
    pool.Post("fail");
    Until([&] { return !script.Errors().empty(); });
    EXPECT_EQ(script.Errors()[0].code, unsigned{ERROR_NO_SYSTEM_RESOURCES});
    EXPECT_EQ(script.Errors()[0].message, L"Getting asynch queue work data failed.");
    EXPECT_NE(script.Errors()[0].thread, 0u);
    Until([&] { return pool.ThreadsWaiting() == 1; });
    pool.Post("after");
    pool.AwaitQuiet();
    EXPECT_THAT(script.Items(), ElementsAre("fail", "after"));
}

TEST_F(PoolOfTwo, LosesNoItemThatThereIsNoMemoryToTake) {
    script.onWork = [](const std::string& work) {
        if (work == "fail") ScriptedThread::FailNext<FailAllocation>();
    };
    const std::string longer(1'000, 'a');
    pool.Post("fail");
    pool.AwaitQuiet();
    pool.Post(longer);
    pool.AwaitQuiet();
    EXPECT_THAT(script.Items(), ElementsAre("fail", longer));
    ASSERT_EQ(script.Errors().size(), 1u);
    EXPECT_EQ(script.Errors()[0].code, 14u);
}

TEST(PortPackets, GoToWhomTheyAreForAndAreNoWork) {
    Script script;
    PortPool pool(script);
    pool.idleWaitMs = 1;
    pool.AdjustPortObjects(true);
    EXPECT_EQ(pool.ThreadsAllocated(), 1u) << "to take them";
    OVERLAPPED record{}, likeOwn{};
    likeOwn.hEvent = static_cast<_TQThreadPoolBase*>(&pool);
    const PortPool::Packet rows[] = {
        {5, 10, &record, 0}, {5, 0xFFFFFFFF, nullptr, 0}, {5, 7, &record, 0}, {5, 1, &likeOwn, 0},
        {0, 0, nullptr, 0},  {0, 0xFFFFFFFF, nullptr, 0}, {0, 9, &record, 0}};
    std::vector<PortPool::Packet> posted;
    for (const auto& row : rows) {
        pool.PostPacket(posted.emplace_back(row));
        Until([&] { return pool.Packets().size() == posted.size(); });
        EXPECT_EQ(pool.WorkCount(), 0u);
    }
    EXPECT_EQ(pool.Packets(), posted);
    Until([&] { return !script.Errors().empty(); });
    EXPECT_EQ(script.Errors()[0].code, 7u);
    EXPECT_NE(script.Errors()[0].thread, 0u);
    EXPECT_FALSE(pool.CanStop());
    pool.AdjustPortObjects(false);
    EXPECT_TRUE(pool.CanStop());
    pool.idleMs = 600'001;
    pool.Post("work");
    Until([&] { return pool.ThreadsAllocated() == 0; });
    EXPECT_THAT(script.Items(), ElementsAre("work"));
    pool.PostPacket(rows[0]);
    pool.StopThreads();
    EXPECT_EQ(pool.Packets().size(), posted.size() + 1) << "handed on by the one who empties the port";
    EXPECT_EQ(ThrownCode([&] { pool.AdjustPortObjects(true); }), Stopped);
}

TEST(PortPackets, FindAThreadBesideOneThatIsBusy) {
    Script script;
    Gate gate;
    script.onWork = [&](const std::string&) { gate.Pass(); };
    PortPool pool(script);
    pool.AdjustPortObjects(true);
    pool.Post("");
    Until([&] { return gate.Came() == 1; });
    pool.PostPacket({5, 1, nullptr, 0});
    Until([&] { return pool.Packets().size() == 1; });
    pool.AdjustPortObjects(false);
    gate.Open();
}

// All threads of a pool with more than its minimum.
class IdlePool : public testing::Test {
  protected:
    static constexpr DWORD Max = 16;

    IdlePool() {
        script.onWork = [this](const std::string&) { gate.Pass(); };
    }
    void SetUp() override {
        minimum = pool.LimitsFor(Processors(), Max).minimum;
        if (minimum >= Max) GTEST_SKIP() << "the minimum is the maximum on a machine with so many processors";
        for (DWORD i = 0; i < Max; ++i)
            pool.Post("");
        Until([&] { return gate.Came() == static_cast<int>(Max); });
    }
    void LetIdle() {
        pool.idleWaitMs = 1;
        gate.Open();
    }
    static DWORD Processors() {
        SYSTEM_INFO info;
        GetSystemInfo(&info);
        return info.dwNumberOfProcessors;
    }

    Script script;
    Gate gate;
    TestPool<Max> pool{script};
    DWORD minimum = 0;
};

TEST_F(IdlePool, KeepsItsMinimumForTenMinutes) {
    LetIdle();
    Until([&] { return pool.ThreadsAllocated() <= minimum; });
    pool.idleMs = 600'000;
    Sleep(NeverMs);
    EXPECT_EQ(pool.ThreadsAllocated(), minimum) << "many waits in vain later";
    pool.idleMs = 600'001;
    Until([&] { return pool.ThreadsAllocated() == 0; });
    Until([&] { return ScriptedThread::Objects() == 0; });
    pool.idleMs = 0;
    pool.Post("");
    pool.AwaitQuiet();
    EXPECT_EQ(script.Items().size(), Max + 1);
}

TEST_F(IdlePool, KeepsItsThreadsWhilePortObjectsNeedThem) {
    pool.AdjustPortObjects(true);
    LetIdle();
    pool.idleMs = 600'001;
    Sleep(NeverMs);
    EXPECT_EQ(pool.ThreadsAllocated(), Max);
    pool.AdjustPortObjects(false);
    Until([&] { return pool.ThreadsAllocated() == 0; });
}

TEST_F(ThreadOfAPool, WorksOnlyForThePoolThatMadeIt) {
    const RecordingSink log;
    ScriptedThread stranger;
    stranger.AssignPool(&pool);
    stranger.Start();
    stranger.WaitForComplete(INFINITE);
    EXPECT_EQ(stranger.ResultMessage(), L"Thread does not belong to this pool.");
}

TEST_F(ThreadOfAPool, WorksOnlyOnItsOwnThread) {
    std::atomic<ScriptedThread*> thread = nullptr;
    script.onWork = [&](const std::string&) { thread = &ScriptedThread::Current(); };
    pool.Post("");
    pool.AwaitQuiet();
    BYTEBuf none;
    EXPECT_EQ(ThrownText([&] { (*thread).RunWork(none); }),
              L"Pool thread can only call RunPoolThread from it's running thread.");
}

TEST_F(ThreadOfAPool, LeavesThePoolWhenItIsStopped) {
    script.onWork = [](const std::string& work) {
        if (work == "stop") ScriptedThread::Current().Stop();
    };
    pool.Post("stop");
    Until([&] { return ScriptedThread::Objects() == 0; });
    pool.Post("next");
    pool.AwaitQuiet();
    EXPECT_EQ(script.started, 2);
}

TEST(WorkPool, LivesFromItsFirstClientToItsLast) {
    _TQWorkPoolBase& pool = _TQWorkPoolBase::AddClient();
    EXPECT_EQ(&_TQWorkPoolBase::AddClient(), &pool);
    _TQWorkPoolBase::DelClient();
    EXPECT_EQ(_TQWorkPoolBase::GetInstance(), &pool);
    _TQWorkPoolBase::DelClient();
    EXPECT_EQ(_TQWorkPoolBase::GetInstance(), nullptr);
    EXPECT_EQ(ThrownCode([] { _TQWorkPoolBase::DelClient(); }), 1u);
}

TEST(WorkPool, DoesTheFunctionsThatClientsPost) {
    static std::string s_done;
    static std::atomic<DWORD> s_refusal;
    s_done.clear();
    s_refusal = 0;
    _TQWorkPoolBase& pool = _TQWorkPoolBase::AddClient();
    const DWORD requestor = pool.GetNewRequestorID();
    const std::string text(400, 'x');
    pool.AddWork(
        [](BYTEBuf& data) {
            s_done.assign(data.begin(), data.end());
            s_refusal = ThrownCode([] { _TQWorkPoolBase::DelClient(); });
        },
        text.data(), static_cast<DWORD>(text.size()), requestor);
    Until([&] { return s_refusal != 0; });
    EXPECT_EQ(s_refusal, DWORD{ERROR_POSSIBLE_DEADLOCK});
    _TQWorkPoolBase::DelClient();
    EXPECT_EQ(s_done, text);
}

}  // namespace
