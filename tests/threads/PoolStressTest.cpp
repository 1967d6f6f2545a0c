#include "TQLib/core/TQLib.h"
#include "support/Worker.h"
#include "threads/TestPool.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <stdexcept>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

constexpr unsigned Stopped = 0x80000015;
constexpr unsigned Posters = 8;

// How many items the cases post; the environment variable TQ_STRESS_ITEMS asks for more or fewer.
unsigned Items() {
    const char* const items = std::getenv("TQ_STRESS_ITEMS");
    return items ? static_cast<unsigned>(std::strtoul(items, nullptr, 10)) : 100'000;
}

// A pool whose items are numbers.
class NumberPool {
  public:
    class Thread : public TQPoolThread {
      public:
        ~Thread() override { EndThread(); }

      protected:
        unsigned int OnStart(const BYTEBuf& data) override {
            std::memcpy(&m_owner, data.Data(), sizeof m_owner);
            return 0;
        }
        void OnWork(BYTEBuf& data) override {
            unsigned number;
            std::memcpy(&number, data.Data(), sizeof number);
            m_owner->m_onWork(number);
        }

      private:
        NumberPool* m_owner = nullptr;
    };

    struct Policy {
        static void ReportException(DWORD, unsigned, const wchar_t*, const void*, ULONGLONG,
                                    const void* poolData, ULONGLONG) {
            NumberPool* owner;
            std::memcpy(&owner, poolData, sizeof owner);
            ++owner->reports;
        }
    };

    explicit NumberPool(std::function<void(unsigned)> onWork) : m_onWork(std::move(onWork)) {}

    void Post(unsigned number, DWORD requestor = 0) { pool.AddWork(&number, sizeof number, requestor); }
    void AwaitQuiet() {
        // What was dropped counts as in flight until its packets are out of the port.
        Until([&] {
            return pool.WorkCount() == 0 && pool.ThreadsBusy() == 0 &&
                   pool.ThreadsWaiting() == pool.ThreadsAllocated() && pool.CanStop();
        });
    }

    std::atomic<unsigned> reports = 0;  // of exceptions

  private:
    NumberPool* m_self = this;
    std::function<void(unsigned)> m_onWork;

  public:
    class Pool : public TQThreadPool<Thread, Policy, 16> {
      public:
        using TQThreadPool::TQThreadPool;
        ~Pool() override { CloseUp(); }
        using _TQThreadPoolBase::CanStop;
    } pool{&m_self, sizeof m_self};
};

// Runs `work(number)` on as many threads as post and waits for them.
template <class Work>
void OnPosters(Work work) {
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned i = 0; i < Posters; ++i)
        workers.push_back(std::make_unique<Worker>([&work, i] { work(i); }));
}

// Counts the clears of one set of items. An item that was posted before a clear began and starts after it
// has returned was taken before: no more than a thread each can have taken one and not begun.
class Clears {
  public:
    template <class Clear>
    void Make(Clear clear) {
        const unsigned number = ++m_begun;
        clear();
        m_done = number;
    }
    unsigned Begun() const { return m_begun; }
    // An item starts that was posted when so many clears had begun.
    void Start(unsigned begunAtPost) {
        if (m_done <= begunAtPost) return;
        const std::lock_guard guard(m_lock);
        m_mostLate = std::max(m_mostLate, ++m_late[begunAtPost + 1]);
    }
    // The most items that started late after one clear.
    unsigned MostLate() const { return m_mostLate; }

  private:
    std::atomic<unsigned> m_begun = 0, m_done = 0;
    std::mutex m_lock;
    std::map<unsigned, unsigned> m_late;
    unsigned m_mostLate = 0;
};

// One run of a pool: items of all kinds, some of whose handlers throw; clears and a stop at random.
class Conservation {
  public:
    enum class End { Quiet, Stop, StopInHandler };

    Conservation(unsigned items, End end, unsigned seed)
        : m_items(items), m_end(end), m_seed(seed), m_states(items), m_pool([this](unsigned n) { Run(n); }) {
        for (DWORD& requestor : m_requestors)
            requestor = m_pool.pool.GetNewRequestorID();
    }

    void RunAll() {
        {
            std::unique_ptr<Worker> disturber;
            std::atomic<bool> isOver = false;
            disturber = std::make_unique<Worker>([&] { Disturb(isOver); });
            OnPosters([this](unsigned poster) { Post(poster); });
            isOver = true;
        }
        if (m_end == End::Quiet) m_pool.AwaitQuiet();
        m_pool.pool.StopThreads();
        m_isStopped = true;
        EXPECT_EQ(m_running, 0);
        EXPECT_EQ(m_pool.pool.WorkCount(), 0u);
        EXPECT_EQ(m_pool.pool.ThreadsAllocated(), 0u);
        EXPECT_TRUE(m_pool.pool.CanStop());
        EXPECT_EQ(ThrownCode([&] { m_pool.Post(0); }), Stopped);
        EXPECT_EQ(m_pool.reports, m_thrown) << "each exception once";
        EXPECT_EQ(m_afterStop, 0u);
        EXPECT_EQ(m_wrong, 0u) << "items that ran twice, or were never posted";
        EXPECT_LE(m_allClears.MostLate(), m_pool.pool.MaxThreads());
        EXPECT_LE(m_requestorClears.MostLate(), m_pool.pool.MaxThreads());
        if (m_end == End::Quiet) CheckUntouched();
    }

  private:
    // Those of the last are cleared alone, those of the first two never alone.
    static constexpr unsigned Kinds = 4;  // anonymous and three requestors

    struct State {
        std::atomic<unsigned char> runs = 0;
        bool isRefused = false;
        std::atomic<unsigned> allClears = ~0u, requestorClears = ~0u;  // begun when it was posted
    };

    DWORD RequestorOf(unsigned number) const { return number % Kinds ? m_requestors[number % Kinds - 1] : 0; }
    static bool IsClearedAlone(unsigned number) { return number % Kinds == Kinds - 1; }

    void Post(unsigned poster) {
        for (unsigned number = poster; number < m_items; number += Posters) {
            const DWORD code = ThrownCode([&] { m_pool.Post(number, RequestorOf(number)); });
            State& state = m_states[number];
            if (code != 0) {
                EXPECT_EQ(code, Stopped);
                state.isRefused = true;
                if (m_end == End::Quiet) return;
                continue;
            }
            state.allClears = m_allClears.Begun();
            state.requestorClears = m_requestorClears.Begun();
        }
    }

    void Run(unsigned number) {
        const Running running(m_running);
        State& state = m_states[number];
        if (state.runs.fetch_add(1) != 0) ++m_wrong;
        if (m_isStopped) ++m_afterStop;
        m_allClears.Start(state.allClears);
        if (IsClearedAlone(number)) m_requestorClears.Start(state.requestorClears);
        if (number == m_items / 2 && m_end == End::StopInHandler) m_pool.pool.StopThreads();
        if (number % 97 == 0) {
            ++m_thrown;
            if (number % 2) throw TQAppException(number, L"library");
            throw std::runtime_error("standard");
        }
    }

    void Disturb(const std::atomic<bool>& isOver) {
        std::minstd_rand random(m_seed);
        unsigned round = 0;
        while (!isOver) {
            Sleep(static_cast<DWORD>(random() % 3));
            if (random() % 2)
                m_requestorClears.Make([&] { m_pool.pool.ClearRequestorItems(m_requestors[Kinds - 2]); });
            else if (m_end != End::Quiet)
                m_allClears.Make([&] { m_pool.pool.ClearAll(); });
            if (m_end == End::Stop && ++round == 8) m_pool.pool.StopThreads();
        }
    }

    // Where nothing was stopped and not everything cleared, all other items have run.
    void CheckUntouched() {
        unsigned missing = 0;
        for (unsigned number = 0; number < m_items; ++number)
            if (!IsClearedAlone(number) && m_states[number].runs != 1) ++missing;
        EXPECT_EQ(missing, 0u);
    }

    const unsigned m_items;
    const End m_end;
    const unsigned m_seed;
    std::vector<State> m_states;
    DWORD m_requestors[Kinds - 1];
    Clears m_allClears, m_requestorClears;
    std::atomic<int> m_running = 0;
    std::atomic<bool> m_isStopped = false;
    std::atomic<unsigned> m_thrown = 0, m_wrong = 0, m_afterStop = 0;
    NumberPool m_pool;
};

TEST(PoolStress, RunsEachItemOnceUnlessItIsClearedOrStopped) {
    constexpr unsigned rounds = 10;
    for (unsigned round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const auto end = round % 4 == 1   ? Conservation::End::Stop
                         : round % 4 == 3 ? Conservation::End::StopInHandler
                                          : Conservation::End::Quiet;
        Conservation(Items() / rounds, end, round).RunAll();
    }
}

// The order in which items are taken shows in that of their starts: ahead of an item that starts, only those
// may be missing that other threads have taken and not begun.
TEST(PoolStress, HandsItemsOutInTheirOrderOnAllThreads) {
    const unsigned items = Items() / 10;
    std::mutex lock;
    unsigned next = 0;           // beyond all that have started
    std::set<unsigned> missing;  // those before it that have not
    std::size_t mostMissing = 0;
    NumberPool numbers([&](unsigned number) {
        const std::lock_guard guard(lock);
        while (next <= number)
            missing.insert(missing.end(), next++);
        missing.erase(number);
        const auto ahead = std::distance(missing.begin(), missing.lower_bound(number));
        mostMissing = std::max(mostMissing, static_cast<std::size_t>(ahead));
    });
    std::vector<DWORD> requestors(100, 0);  // anonymous items among them
    while (requestors.size() < 1'000)
        requestors.push_back(numbers.pool.GetNewRequestorID());
    std::mutex posting;  // makes the posts' order known
    unsigned posted = 0;
    OnPosters([&](unsigned poster) {
        std::minstd_rand random(poster + 1);
        for (;;) {
            const DWORD requestor = requestors[random() % requestors.size()];
            const std::lock_guard guard(posting);
            if (posted == items) return;
            numbers.Post(posted++, requestor);
        }
    });
    numbers.AwaitQuiet();
    EXPECT_EQ(next, items);
    EXPECT_TRUE(missing.empty());
    EXPECT_LT(mostMissing, numbers.pool.MaxThreads());
}

// An item starts where a thread sleeps, whatever the threads did just before: items that stay, one for each
// thread but the last, and then one after the other for that one.
TEST(PoolStress, LeavesNoItemToThreadsThatSleep) {
    constexpr int threads = 4;
    const unsigned rounds = std::min(Items() / 100, 1'000u);
    Script script;
    std::atomic<Gate*> gate = nullptr;
    std::atomic<unsigned> done = 0;
    script.onWork = [&](const std::string& work) {
        if (!work.empty()) gate.load()->Pass();
        ++done;
    };
    TestPool<threads> pool(script);
    pool.idleWaitMs = INFINITE;
    std::minstd_rand random(1);
    const auto pause = [&](unsigned most) {
        for (auto i = random() % most; i != 0; --i)
            Quellan::Compiler::Pause();
    };
    for (unsigned round = 0; round < rounds; ++round) {
        Gate closed;
        gate = &closed;
        unsigned posted = static_cast<unsigned>(random()) % 6;
        done = 0;
        for (unsigned i = 0; i < posted; ++i)
            pool.Post("");
        if (random() % 3 == 0) pause(2'000);
        for (int i = 1; i < threads; ++i) {
            pool.Post("gate");
            if (random() % 4 == 0) pause(50);
        }
        Until([&] { return closed.Came() == threads - 1 && done == posted; });
        for (int i = 0; i < 20; ++i) {
            // It comes just as the thread that has done the one before goes to sleep.
            pause(50);
            pool.Post("");
            ++posted;
            for (int looks = 0; done != posted && looks < 10'000; ++looks)
                Quellan::Compiler::Pause();
            Until([&] { return done == posted; });
        }
        closed.Open();
        Until([&] { return script.handlers == 0; });
    }
}

// Items and packets of others come to threads that wait, whether before or after the port was asked for.
TEST(PoolStress, TakesItemsAndPacketsWhileThePortIsBegun) {
    constexpr unsigned items = 40;
    const unsigned rounds = std::min(Items() / 300, 300u);
    for (unsigned round = 0; round < rounds; ++round) {
        Script script;
        PortPool pool(script);
        pool.idleWaitMs = INFINITE;
        pool.Post("first");
        Worker poster([&] {
            for (unsigned i = 1; i < items; ++i) {
                for (unsigned pauses = (round + i) % 64; pauses != 0; --pauses)
                    Quellan::Compiler::Pause();
                pool.Post("");
            }
        });
        for (ULONGLONG key = 1; key <= 3; ++key)
            pool.PostPacket({key, 1, nullptr, 0});
        Until([&] { return pool.Packets().size() == 3 && script.Items().size() == items; });
    }
}

// Who stops a pool, in what state.
enum class Load { Empty, Full, Filled };
enum class Stopper { Stranger, TwoStrangers, Handler, LibraryExit };

class PoolShutdown : public testing::TestWithParam<std::tuple<Load, Stopper>> {};

TEST_P(PoolShutdown, LeavesNothing) {
    const auto [load, stopper] = GetParam();
    for (int round = 0; round < 5; ++round) {
        Script script;
        std::atomic<bool> isStopped = false;
        std::atomic<int> late = 0;
        TestPool<4> pool(script);
        script.onWork = [&](const std::string& work) {
            if (isStopped) ++late;
            if (work == "stop") pool.StopThreads();
        };
        const DWORD requestor = pool.GetNewRequestorID();
        std::atomic<unsigned> posts = 0;
        const auto post = [&] { pool.Post("work", ++posts % 2 ? requestor : 0); };
        std::vector<std::unique_ptr<Worker>> posters;
        for (int i = 0; load == Load::Full && i < 2'000; ++i)
            post();
        for (unsigned i = 0; load == Load::Filled && i < Posters; ++i)
            posters.push_back(std::make_unique<Worker>([&] {
                while (ThrownCode(post) != Stopped)
                    ;
            }));
        Until([&] { return load != Load::Filled || posts > 4 * Posters; });
        switch (stopper) {
            case Stopper::Stranger:
                break;
            case Stopper::TwoStrangers:
                posters.push_back(std::make_unique<Worker>([&] { pool.StopThreads(); }));
                break;
            case Stopper::Handler:
                pool.Post("stop");
                Until([&] { return ThrownCode([&] { pool.Post(""); }) == Stopped; });
                break;
            case Stopper::LibraryExit:
                TQLib::RunExitHandlers();
        }
        pool.StopThreads();
        isStopped = true;
        EXPECT_EQ(script.handlers, 0);
        EXPECT_EQ(ScriptedThread::Objects(), 0);
        EXPECT_FALSE(pool.ThreadRunning());
        posters.clear();
        EXPECT_EQ(late, 0);
        EXPECT_EQ(pool.WorkCount(), 0u);
        EXPECT_EQ(pool.ThreadsAllocated() + pool.ThreadsBusy() + pool.ThreadsWaiting(), 0u);
        EXPECT_TRUE(pool.CanStop());
        EXPECT_EQ(ThrownCode(post), Stopped);
    }
}

INSTANTIATE_TEST_SUITE_P(, PoolShutdown,
                         testing::Combine(testing::Values(Load::Empty, Load::Full, Load::Filled),
                                          testing::Values(Stopper::Stranger, Stopper::TwoStrangers,
                                                          Stopper::Handler, Stopper::LibraryExit)));

}  // namespace
