#include "TQLib/core/TQException.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQMsgThread.h"
#include "TQLib/threads/TQThreadReadSynch.h"
#include "TQLib/threads/TQWaitList.h"
#include "support/Eventually.h"
#include "support/Worker.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using Guard = TQThreadSynch::TQSynchLock;

namespace {

// Each case runs for this long; the environment variable TQ_STRESS_SECONDS asks for more.
TQTimeSpan Duration() {
    const char* const seconds = std::getenv("TQ_STRESS_SECONDS");
    return seconds ? TQTimeSpan::FromSeconds(std::atoi(seconds)) : TQTimeSpan::FromMilliseconds(1'500);
}

// Runs `work(number, isOver)` on `count` threads until the time is up, then `release` until they have all
// ended.
template <class Work, class Release>
void OnThreads(unsigned count, Work work, Release release) {
    std::atomic<bool> isOver = false;
    std::atomic<unsigned> left = count;
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned i = 0; i < count; ++i)
        workers.push_back(std::make_unique<Worker>([&, i] {
            work(i, isOver);
            --left;
        }));
    const TQTimer timer;
    while (timer.Elapsed() < Duration())
        Sleep(10);
    isOver = true;
    EXPECT_TRUE(Eventually([&] {
        release();
        return left == 0;
    }));
}

template <class Work>
void OnThreads(unsigned count, Work work) {
    OnThreads(count, work, [] {});
}

TEST(StressReadSynch, NoWriterEverOverlapsAnybody) {
    TQThreadReadSynch lock;
    TQThreadWriteSynch writes[] = {TQThreadWriteSynch(lock), TQThreadWriteSynch(lock)};
    std::atomic<int> readers = 0, writers = 0;
    std::atomic<unsigned long> overlaps = 0;
    unsigned long written = 0,
                  counted[8] = {};  // the first under the lock alone, which the thread sanitizer watches
    OnThreads(8, [&](unsigned number, const std::atomic<bool>& isOver) {
        std::minstd_rand random(number + 1);
        const auto nest = [&](auto& self, bool write, unsigned depth) -> void {
            if (depth == 0) return;
            std::unique_ptr<Guard> guard;
            if (write)
                guard = std::make_unique<Guard>(writes[random() % 2]);
            else
                guard = std::make_unique<Guard>(lock);
            if (write) {
                if (readers != 0 || writers != 1) ++overlaps;
                ++written;
                ++counted[number];
            } else if (writers != 0 || written == ~0ul) {
                ++overlaps;
            }
            self(self, write, depth - 1);
        };
        while (!isOver) {
            const bool write = random() % 4 == 0;
            if (write) {
                const Guard guard(writes[random() % 2]);
                ++writers;
                nest(nest, true, random() % 4);
                --writers;
            } else {
                const Guard guard(lock);
                ++readers;
                nest(nest, false, random() % 4);
                --readers;
            }
        }
    });
    EXPECT_EQ(overlaps, 0u);
    unsigned long sum = 0;
    for (const unsigned long count : counted)
        sum += count;
    EXPECT_EQ(written, sum);
    EXPECT_GT(written, 0u);
}

// Works until it is stopped, and knows when two of its runs overlap.
class CountedThread : public TQThread {
  public:
    ~CountedThread() override { EndThread(); }

    std::atomic<int> running = 0;
    std::atomic<unsigned long> runs = 0, overlaps = 0;

  protected:
    unsigned int RunWork(BYTEBuf&) override {
        if (++running != 1) ++overlaps;
        ++runs;
        StopEvent().Wait(INFINITE);
        --running;
        return 0;
    }
};

TEST(StressThread, IsStartedAndStoppedFromAllSides) {
    CountedThread thread;
    std::atomic<unsigned long> surprises = 0;
    const auto expected = [&](auto operation) {
        try {
            operation();
        } catch (const TQCoreException& e) {
            // Somebody else's start was under way, there was no thread to resume yet, or somebody else ended
            // the suspended one.
            if (e.ErrCode() != 1247 && e.ErrCode() != ERROR_INVALID_HANDLE && e.ErrCode() != 995) ++surprises;
        }
    };
    const std::function<void()> steps[] = {[&] { thread.Start(); },  [&] { thread.Start(true); },
                                           [&] { thread.Resume(); }, [&] { thread.Restart(); },
                                           [&] { thread.Stop(); },   [&] { thread.WaitForComplete(1); }};
    const auto work = [&](unsigned number, const std::atomic<bool>& isOver) {
        std::minstd_rand random(number + 1);
        while (!isOver)
            expected(steps[random() % std::size(steps)]);
    };
    // A restart may come to wait for the thread that somebody else has started meanwhile, and suspended.
    OnThreads(6, work, [&] {
        thread.Stop();
        expected([&] { thread.Resume(); });
    });
    EXPECT_EQ(surprises, 0u);
    EXPECT_EQ(thread.overlaps, 0u);
    EXPECT_GT(thread.runs, 0u);
}

TEST(StressThread, IsDestroyedInEveryState) {
    OnThreads(4, [&](unsigned number, const std::atomic<bool>& isOver) {
        std::minstd_rand random(number + 1);
        while (!isOver) {
            const auto thread = std::make_unique<CountedThread>();
            const auto state = random() % 4;
            if (state > 0) thread->Start(state == 1);
            if (state == 3) const Worker stopper([&] { thread->Stop(); });
        }
    });
}

TEST(StressMsgThread, HandlesEveryMessageAndEverySignal) {
    class Counter : public TQMsgThread {
      public:
        ~Counter() override { EndThread(); }
        unsigned long messages = 0;
        std::atomic<unsigned long> signals = 0;

      protected:
        void OnThreadMessage(UINT, ULONGLONG, LONGLONG, DWORD) override { ++messages; }
        void OnWaitHandle(HANDLE) override { ++signals; }
    };
    Counter thread;
    std::atomic<unsigned long> posted = 0;
    const TQEvent event(false);
    thread.AddWaitHandle(event.Handle());
    thread.Start();
    OnThreads(4, [&](unsigned number, const std::atomic<bool>& isOver) {
        while (!isOver) {
            if (number == 0) {
                event.Set();
                thread.RemoveWaitHandle(event.Handle());
                thread.AddWaitHandle(event.Handle());
            } else if (thread.PostMsg(WM_APP, 0, 0, false)) {
                ++posted;
            } else {
                Sleep(1);  // the queue is full
            }
        }
    });
    // While messages come the loop may have no time for objects; afterwards it has.
    const unsigned long before = thread.signals;
    EXPECT_TRUE(Eventually([&] {
        event.Set();
        return thread.signals != before;
    }));
    EXPECT_EQ(thread.StopAndWait(INFINITE), 0u);
    EXPECT_EQ(thread.messages, posted);
}

// Each event is set only after its last signal has come back, so that every signal must come back once. Two
// threads signal what stays in the list; what comes and goes, and makes the others change places, the owner
// signals itself.
TEST(StressWaitList, LosesNoSignalWhileHandlesComeAndGo) {
    constexpr std::size_t perKind = 90, kinds = 3, count = kinds * perKind;
    std::vector<TQEvent> events;
    for (std::size_t i = 0; i < count; ++i)
        events.emplace_back(false);
    std::vector<std::atomic<unsigned long>> sent(count), received(count);
    const auto send = [&](std::size_t i) {
        if (sent[i] != received[i]) return;
        ++sent[i];
        events[i].Set();
    };
    TQWaitList list;
    const auto receive = [&](DWORD ms) {
        const HANDLE handle = list.Wait(ms);
        if (!handle) return;
        const auto i =
            static_cast<std::size_t>(std::ranges::find(events, handle, &TQEvent::Handle) - events.begin());
        ASSERT_EQ(sent[i], received[i] + 1) << "reported twice";
        ++received[i];
    };
    for (std::size_t i = 0; i < count; ++i)
        if (i % kinds != 0) list.Add(events[i].Handle());
    {
        std::atomic<bool> isOver = false;
        const auto signal = [&](unsigned kind) {
            std::minstd_rand random(kind);
            while (!isOver)
                send(random() % perKind * kinds + kind);
        };
        Worker first([&] { signal(1); }), second([&] { signal(2); });
        std::vector<bool> isIn(count);
        std::minstd_rand random(9);
        const TQTimer timer;
        while (timer.Elapsed() < Duration()) {
            const std::size_t i = random() % perKind * kinds;
            if (!isIn[i]) {
                list.Add(events[i].Handle());
                if (random() % 2) send(i);
                isIn[i] = true;
            } else if (sent[i] == received[i]) {
                list.Remove(events[i].Handle());
                isIn[i] = false;
            }
            receive(random() % 2);
        }
        isOver = true;
    }
    unsigned long total = 0;
    for (std::size_t i = 0; i < count; ++i) {
        while (sent[i] != received[i])
            receive(INFINITE);
        total += received[i];
    }
    EXPECT_EQ(list.Wait(0), nullptr);
    EXPECT_GT(total, count);
}

}  // namespace
