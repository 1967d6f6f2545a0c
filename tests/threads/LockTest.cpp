#include "TQLib/threads/TQProcessLock.h"
#include "TQLib/threads/TQSignalLockSynch.h"
#include "TQLib/threads/TQThreadCPUTimer.h"
#include "TQLib/threads/TQThreadPriority.h"
#include "TQLib/threads/TQThreadReadSynch.h"
#include "platform/PlatformTest.h"
#include "support/FailCall.h"
#include "support/Worker.h"

#include <array>
#include <atomic>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <vector>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using Guard = TQThreadSynch::TQSynchLock;

namespace {

// A thread that takes a lock, says so, and gives it back.
class Taker {
  public:
    template <class Lock>
    explicit Taker(Lock& lock)
        : m_thread([this, &lock] {
              const Guard guard(lock);
              m_taken.Set();
          }) {}

    bool HasTaken(DWORD ms) { return m_taken.Wait(ms); }

  private:
    TQEvent m_taken{true};
    Worker m_thread;
};

template <class Lock>
bool CanBeTaken(Lock& lock) {
    return Taker(lock).HasTaken(INFINITE);
}

TEST(ThreadSynch, IsNotSharedByCopying) {
    TQThreadSynch lock;
    const Guard guard(lock);
    TQThreadSynch copy(lock), assigned;
    assigned = lock;
    EXPECT_TRUE(CanBeTaken(copy));
    EXPECT_TRUE(CanBeTaken(assigned));
}

TEST(ThreadSynch, StaysHeldWhenItIsAssignedTo) {
    TQThreadSynch lock;
    std::optional<Guard> guard(std::in_place, lock);
    lock = TQThreadSynch();
    Taker taker(lock);
    EXPECT_FALSE(taker.HasTaken(NeverMs));
    guard.reset();
    EXPECT_TRUE(taker.HasTaken(INFINITE));
}

class ReadSynch : public testing::Test {
  protected:
    std::unique_ptr<Guard> Hold(bool isWriter) {
        return isWriter ? std::make_unique<Guard>(write) : std::make_unique<Guard>(lock);
    }
    // Nobody is let in to write until something is done.
    template <class Action>
    void ExpectHeldUntil(Action action) {
        Taker taker(write);
        EXPECT_FALSE(taker.HasTaken(NeverMs));
        action();
        EXPECT_TRUE(taker.HasTaken(INFINITE));
    }
    void ForgetHolders() { lock = TQThreadReadSynch(); }

    TQThreadReadSynch lock;
    TQThreadWriteSynch write{lock};
};

TEST_F(ReadSynch, KeepsReadersAndWritersApart) {
    TQThreadWriteSynch otherWrite(lock);
    std::optional<Guard> guard(std::in_place, lock);
    Taker writer(write);
    EXPECT_FALSE(writer.HasTaken(NeverMs));
    guard.reset();
    EXPECT_TRUE(writer.HasTaken(INFINITE));

    guard.emplace(write);
    Taker reader(lock), sameWriter(write), otherWriter(otherWrite);
    EXPECT_FALSE(reader.HasTaken(NeverMs));
    EXPECT_FALSE(sameWriter.HasTaken(0));
    EXPECT_FALSE(otherWriter.HasTaken(0));
    guard.reset();
    EXPECT_TRUE(reader.HasTaken(INFINITE));
    EXPECT_TRUE(sameWriter.HasTaken(INFINITE));
    EXPECT_TRUE(otherWriter.HasTaken(INFINITE));
}

TEST_F(ReadSynch, LetsReadersPassByAWaitingWriter) {
    std::optional<Guard> guard(std::in_place, lock);
    ExpectHeldUntil([&] {
        EXPECT_TRUE(CanBeTaken(lock));
        { const Guard again(lock); }
        guard.reset();
    });
}

TEST_F(ReadSynch, MustBeReleasedAsOftenAsItWasTaken) {
    for (const bool isWriter : {false, true}) {
        TQThreadWriteSynch otherWrite(lock);
        std::vector<std::unique_ptr<Guard>> guards;
        for (int i = 0; i < 3; ++i)
            guards.push_back(isWriter && i == 1 ? std::make_unique<Guard>(otherWrite) : Hold(isWriter));
        Taker taker(write);
        while (!guards.empty()) {
            EXPECT_FALSE(taker.HasTaken(NeverMs)) << guards.size() << " are left";
            guards.pop_back();
        }
        EXPECT_TRUE(taker.HasTaken(INFINITE));
        EXPECT_TRUE(CanBeTaken(lock));
    }
}

// Both wait for themselves; assigning to the lock, which forgets who holds it, is the only way out.
TEST_F(ReadSynch, HasNoUpgradeAndNoDowngrade) {
    for (const bool isWriter : {false, true}) {
        const TQEvent holds(true), hasBoth(true);
        Worker thread([&] {
            const auto first = Hold(isWriter);
            holds.Set();
            const auto second = Hold(!isWriter);
            hasBoth.Set();
        });
        holds.Wait(INFINITE);
        EXPECT_FALSE(hasBoth.Wait(NeverMs));
        ForgetHolders();
        EXPECT_TRUE(hasBoth.Wait(INFINITE));
        thread.Join();
        EXPECT_TRUE(CanBeTaken(write)) << "nothing is left of what was held before";
        EXPECT_TRUE(CanBeTaken(lock));
    }
}

TEST_F(ReadSynch, IsNotReleasedByWhoHoldsNothing) {
    for (const bool isWriter : {false, true}) {
        auto guard = Hold(isWriter);
        Worker([&] { guard.reset(); }).Join();
        ExpectHeldUntil([&] { ForgetHolders(); });
    }
}

TEST_F(ReadSynch, IsNotReleasedByWhoHeldItBeforeAnAssignment) {
    for (const bool wasWriter : {false, true}) {
        auto before = Hold(wasWriter);
        ForgetHolders();
        const TQEvent reads(true), end(true);
        Worker reader([&] {
            const Guard guard(lock);
            reads.Set();
            end.Wait(INFINITE);
        });
        reads.Wait(INFINITE);
        before.reset();
        ExpectHeldUntil([&] { end.Set(); });
    }
}

TEST_F(ReadSynch, IsNotTakenOverFromAThreadThatEndedInside) {
    for (const bool isWriter : {false, true}) {
        Guard* left = nullptr;
        Worker([&] { left = Hold(isWriter).release(); }).Join();
        ExpectHeldUntil([&] { ForgetHolders(); });
        ::operator delete(left);
    }
}

TEST_F(ReadSynch, IsUsableAfterAnAssignmentUnderReaders) {
    std::atomic<bool> stop = false;
    const auto read = [&] {
        while (!stop)
            const Guard guard(lock);
    };
    {
        const TQThreadReadSynch fresh;
        Worker first(read), second(read), third(read);
        for (int i = 0; i < 30'000; ++i)
            lock = fresh;
        stop = true;
    }
    Taker writer(write);
    EXPECT_TRUE(writer.HasTaken(10'000));
    lock = TQThreadReadSynch();
}

TEST_F(ReadSynch, IsFreeInACopy) {
    const Guard guard(write);
    TQThreadReadSynch copy(lock);
    EXPECT_TRUE(CanBeTaken(copy));
}

TEST_F(ReadSynch, IsToldFromManyOthers) {
    constexpr std::size_t count = 20;  // more than the thread has places of its own for
    std::vector<TQThreadReadSynch> locks(count);
    std::vector<std::unique_ptr<Guard>> guards;
    for (TQThreadReadSynch& each : locks)
        guards.push_back(std::make_unique<Guard>(each));
    for (TQThreadReadSynch& each : locks)
        guards.push_back(std::make_unique<Guard>(each));
    for (std::size_t i = 0; i < count; ++i) {
        TQThreadWriteSynch itsWrite(locks[i]);
        Taker writer(itsWrite);
        guards[i].reset();
        EXPECT_FALSE(writer.HasTaken(i % 7 == 0 ? NeverMs : 0));
        guards[count + i].reset();
        EXPECT_TRUE(writer.HasTaken(INFINITE));
    }
}

TEST_F(ReadSynch, IsNotHeldWhereTheWaitFails) {
    auto guard = std::make_unique<Guard>(write);
    Worker([&] {
        for (const bool isWriter : {false, true}) {
            const FailCall fail("WaitForSingleObject", ERROR_NOT_ENOUGH_MEMORY, 1, WAIT_FAILED);
            EXPECT_EQ(ThrownCode([&] { const auto held = Hold(isWriter); }), DWORD{ERROR_NOT_ENOUGH_MEMORY});
        }
    }).Join();
    guard.reset();
    EXPECT_TRUE(CanBeTaken(lock));
    EXPECT_TRUE(CanBeTaken(write));
}

TEST_F(ReadSynch, NeedsMemoryForAThreadThatReadsUnderMany) {
    std::array<TQThreadReadSynch, 10> locks;
    const auto readAll = [&] {
        std::array<std::optional<Guard>, locks.size()> guards;
        for (std::size_t i = 0; i < locks.size(); ++i)
            guards[i].emplace(locks[i]);
    };
    const auto checkAll = [&] {
        for (TQThreadReadSynch& each : locks)
            EXPECT_TRUE(CanBeTaken(each));
    };
    SweepAllocations(readAll, checkAll);
}

TEST(SignalLock, IsToBeHadWhileTheSignalIsSet) {
    TQThreadSynch lock;
    TQSignalLockSynch signal(lock, false);
    EXPECT_FALSE(signal.IsSet());
    EXPECT_EQ(signal.GetLock(0), nullptr);
    signal.Set();
    EXPECT_TRUE(signal.IsSet());
    auto held = signal.GetLock(INFINITE);
    ASSERT_NE(held, nullptr);
    EXPECT_TRUE(signal.IsSet()) << "the signal stays";
    Taker taker(lock);
    auto copy = held;
    held.Reset();
    EXPECT_FALSE(taker.HasTaken(NeverMs));
    copy.Reset();
    EXPECT_TRUE(taker.HasTaken(INFINITE));
    signal.Clear();
    EXPECT_EQ(signal.GetLock(1), nullptr);
    EXPECT_TRUE(TQSignalLockSynch(lock, true).IsSet());
}

// Runs a function each time before the lock is taken.
class HookedLock : public TQThreadSynch {
  public:
    std::function<void()> hook;

  protected:
    void Lock() override {
        hook();
        TQThreadSynch::Lock();
    }
};

TEST(SignalLock, WaitsAgainForASignalThatWasClearedMeanwhile) {
    HookedLock lock;
    TQSignalLockSynch signal(lock, true);
    int taken = 0;
    lock.hook = [&] {
        if (++taken == 1) signal.Clear();
    };
    EXPECT_EQ(signal.GetLock(5), nullptr);
    EXPECT_EQ(taken, 1);
    signal.Set();
    EXPECT_NE(signal.GetLock(0), nullptr);
}

TEST(SignalLock, HoldsNothingWhereSomethingFails) {
    TQThreadSynch lock;
    TQSignalLockSynch signal(lock, true);
    {
        const FailCall fail("WaitForSingleObject", ERROR_INVALID_HANDLE, 1, WAIT_FAILED);
        EXPECT_EQ(ThrownCode([&] { static_cast<void>(signal.GetLock(0)); }), DWORD{ERROR_INVALID_HANDLE});
    }
    {
        const FailAllocation fail(1);
        EXPECT_EQ(ThrownText([&] { static_cast<void>(signal.GetLock(0)); }),
                  L"Allocation of signaled thread lock object failed");
    }
    SweepAllocations([&] { static_cast<void>(signal.GetLock(0)); }, [&] { EXPECT_TRUE(CanBeTaken(lock)); });
}

TEST(ProcessLock, CountsForThePlatformToo) {
    const auto platformCount = [] {
        CoAddRefServerProcess();
        return CoReleaseServerProcess();
    };
    CoAddRefServerProcess();
    EXPECT_EQ(TQProcessLock::Unlock(), 0u);
    EXPECT_EQ(platformCount(), 1u) << "at 0 the platform is left alone";
    EXPECT_EQ(TQProcessLock::Lock(), 1u);
    EXPECT_EQ(TQProcessLock::Lock(), 2u);
    EXPECT_EQ(platformCount(), 3u);
    EXPECT_EQ(TQProcessLock::LockCount(), 2u);
    EXPECT_EQ(TQProcessLock::Unlock(), 1u);
    EXPECT_EQ(TQProcessLock::Unlock(), 0u);
    EXPECT_EQ(TQProcessLock::Unlock(), 0u);
    EXPECT_EQ(platformCount(), 1u);
    CoReleaseServerProcess();
}

int PriorityNow() {
    return GetThreadPriority(GetCurrentThread());
}

TEST(ThreadPriority, IsRestored) {
    Worker([] {
        {
            const TQThreadPriority lowered(THREAD_PRIORITY_BELOW_NORMAL);
            EXPECT_EQ(PriorityNow(), THREAD_PRIORITY_BELOW_NORMAL);
            EXPECT_EQ(lowered.PreviousPriority(), THREAD_PRIORITY_NORMAL);
            {
                const TQThreadPriority raised(THREAD_PRIORITY_NORMAL, true);
                EXPECT_TRUE(raised.HasChanged());
                EXPECT_EQ(PriorityNow(), THREAD_PRIORITY_NORMAL);
                SetLastError(1234);
            }
            EXPECT_EQ(GetLastError(), 1234u);
            EXPECT_EQ(PriorityNow(), THREAD_PRIORITY_BELOW_NORMAL);
        }
        EXPECT_EQ(PriorityNow(), THREAD_PRIORITY_NORMAL);
    }).Join();
}

TEST(ThreadPriority, IsLeftAloneWhereThereIsNothingToDo) {
    const FailCall set("SetThreadPriority", 0, 0);
    {
        const TQThreadPriority same(THREAD_PRIORITY_NORMAL), lower(THREAD_PRIORITY_LOWEST, true);
        EXPECT_FALSE(same.HasChanged());
        EXPECT_FALSE(lower.HasChanged());
        EXPECT_EQ(lower.Priority(), THREAD_PRIORITY_LOWEST);
    }
    EXPECT_EQ(set.Calls(), 0u);
}

TEST(ThreadCPUTimer, MeasuresTheWorkOfItsThread) {
    TQThreadCPUTimer timer;
    volatile unsigned long work = 0;
    while (timer.Elapsed() < TQTimeSpan::FromMilliseconds(20))
        for (int i = 0; i < 100'000; ++i)
            work = work + 1;
    const TQTimeSpan worked = timer.Elapsed();
    Worker idle(
        [&] { EXPECT_LT(TQThreadCPUTimer().Elapsed(), worked) << "another thread's is not counted"; });
    idle.Join();
    EXPECT_LT(idle.CPUTime(), worked);
    timer.Restart();
    EXPECT_LT(timer.Elapsed(), worked);
    EXPECT_EQ(ThrownCode([] { static_cast<void>(TQThreadCPUTimer::ThreadTime(nullptr)); }),
              DWORD{ERROR_INVALID_HANDLE});
}

}  // namespace
