// What only the layer promises, or what can only be seen by looking at a thread from outside.
#include "Forked_linux.h"
#include "Ports.h"
#include "SleepingThreads_linux.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "support/StackedPlan_linux.h"

#include <semaphore>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// What the thread does when the library next gives its core away.
thread_local void (*t_onYield)() = nullptr;

}  // namespace

// In the place of the C library's, for the library too.
extern "C" [[gnu::visibility("default")]] int sched_yield() noexcept {
    if (const auto act = std::exchange(t_onYield, nullptr)) act();
    return static_cast<int>(syscall(SYS_sched_yield));
}

namespace Quellan::Corvel::Test {
namespace {

struct NoBase {
    virtual ~NoBase() = default;
    virtual unsigned Calls() const noexcept = 0;
};

// While it lives, what its thread does at a place inside the library.
class At : public StackedPlan<NoBase, Platform::FaultPlan> {
  public:
    At(const char* place, void (*reached)())
        : StackedPlan(&Platform::ThreadFaultPlans,
                      Platform::FaultPlan{.function = place, .nth = 0, .code = 0, .reached = reached}) {}
};

TEST(SleepingWaits, EndByAnEventThatIsResetAtOnce) {
    for (int i = 0; i < 50; ++i) {
        const Owned event = ManualEvent();
        const Owned other = AutoEvent();
        const Worker waiter([&] { return WaitAny({other, event}, Patience); });
        AwaitSleep(waiter.Id());
        SetEvent(event);
        ResetEvent(event);
        ASSERT_EQ(waiter.Result(), WAIT_OBJECT_0 + 1) << i;
    }
}

// Who signals the object has ended the first wait already, and is not yet done with the thread's place.
TEST(SleepingWaits, BeginAgainWhileTheirObjectIsHeld) {
    static std::binary_semaphore s_waits{0}, s_isHeld{0}, s_waitsAgain{0};
    const Owned event = AutoEvent();
    const Owned other = AutoEvent();
    const Worker waiter([&] {
        t_onYield = [] {
            s_waits.release();
            s_isHeld.acquire();
            t_onYield = [] { s_waitsAgain.release(); };
        };
        WaitAny({event, other}, Patience);
        return WaitAny({event, other}, Patience);
    });
    s_waits.acquire();
    {
        const At held("OfferKept", [] {
            s_isHeld.release();
            s_waitsAgain.acquire();
        });
        SetEvent(event);
        EXPECT_EQ(held.Calls(), 1u);
    }
    SetEvent(event);
    EXPECT_EQ(waiter.Result(), WAIT_OBJECT_0);
}

TEST(Events, ClosedWhileTheyAreSetAreNotTheNextOne) {
    static Owned s_event, s_next;
    s_event = AutoEvent();
    const HANDLE stale = s_event;
    {
        const At inBetween("SetOnWay", [] {
            s_event.Close();
            s_next = AutoEvent();
        });
        EXPECT_EQ(CodeOf(SetEvent(stale)), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_EQ(inBetween.Calls(), 1u);
    }
    EXPECT_EQ(Poll(s_next), DWORD{WAIT_TIMEOUT});
    s_next.Close();
}

TEST(SleepingWaits, AreServedBeforeTheSetter) {
    for (int i = 0; i < 50; ++i) {
        const Owned event = AutoEvent();
        const Worker waiter([&] { return Await(event); });
        AwaitSleep(waiter.Id());
        SetEvent(event);
        ASSERT_EQ(Poll(event), DWORD{WAIT_TIMEOUT}) << i;
        ASSERT_EQ(waiter.Result(), WAIT_OBJECT_0) << i;
    }
}

TEST(SleepingWaits, AreServedInTheirOrder) {
    const Owned semaphore = Semaphore(0);
    std::vector<std::unique_ptr<Worker>> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.push_back(std::make_unique<Worker>([&] { return Await(semaphore); }));
        AwaitSleep(waiters.back()->Id());
    }
    for (const auto& waiter : waiters) {
        ReleaseSemaphore(semaphore, 1, nullptr);
        EXPECT_EQ(Await(waiter->Thread()), WAIT_OBJECT_0);
    }
}

TEST(SleepingWaits, ForAllTakeNothingMeanwhile) {
    const Owned event = AutoEvent();
    const Owned never = AutoEvent();
    const Owned stop = ManualEvent();
    const Worker waiter([&] { return WaitAll({event, never, stop}, Patience); });
    AwaitSleep(waiter.Id());
    SetEvent(event);
    EXPECT_EQ(Poll(event), WAIT_OBJECT_0);
    for (const HANDLE handle : {HANDLE(event), HANDLE(never), HANDLE(stop)})
        SetEvent(handle);
    EXPECT_EQ(waiter.Result(), WAIT_OBJECT_0);
    EXPECT_EQ(Poll(event), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(Poll(stop), WAIT_OBJECT_0);
}

TEST(SleepingWaits, OutliveTheirHandle) {
    Owned closed = AutoEvent();
    const Owned open = Duplicate(closed);
    const Worker waiter([handle = HANDLE(closed)] { return Await(handle); });
    AwaitSleep(waiter.Id());
    closed.Close();
    SetEvent(open);
    EXPECT_EQ(waiter.Result(), WAIT_OBJECT_0);
}

TEST(SleepingWaits, AreWokenWhenTheObjectIsFreeAgain) {
    for (const bool joined : {false, true}) {
        const Owned event = ManualEvent(), never = ManualEvent();
        std::vector<std::unique_ptr<Worker>> waiters;
        for (int i = 0; i < 40; ++i)
            waiters.push_back(std::make_unique<Worker>([&] { return Await(event); }));
        const Worker all([&] { return joined ? WaitAll({event, never}, Patience) : 0; });
        for (const auto& waiter : waiters)
            AwaitSleep(waiter->Id());
        if (joined) AwaitSleep(all.Id());
        const unsigned long before = Platform::WakesUnderHold();
        SetEvent(event);
        EXPECT_EQ(Platform::WakesUnderHold(), before);
        for (const auto& waiter : waiters)
            EXPECT_EQ(waiter->Result(), WAIT_OBJECT_0);
        SetEvent(never);
    }
}

// What the threads of a parent were inside of, in a child that does not have them.
TEST(CriticalSections, InAForkedChildBelongToItsOwnThread) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the thread sanitizer allows the child no threads";
#endif
    CRITICAL_SECTION ours, theirs, orphaned;
    for (CRITICAL_SECTION* section : {&ours, &theirs, &orphaned})
        InitializeCriticalSection(section);
    const auto canEnter = [](CRITICAL_SECTION& section) {
        return Worker([&] { return TryEnterCriticalSection(&section) ? 1u : 0u; }).Result() != 0;
    };
    const auto enter = [](CRITICAL_SECTION& section) {
        EnterCriticalSection(&section);
        return 0u;
    };
    Worker([&] { return enter(orphaned); }).Result();
    EXPECT_FALSE(canEnter(orphaned)) << "whoever comes after the thread that ended inside owns nothing of it";
    EnterCriticalSection(&ours);
    const Owned go = AutoEvent(), inside = AutoEvent();
    const Worker other([&] {
        enter(theirs);
        SetEvent(inside);
        return Await(go);
    });
    Await(inside);
    // Twice: the second time as the child of a child, where the section is still its thread's own.
    const auto check = [&] {
        const bool isOurs = !canEnter(ours) && TryEnterCriticalSection(&ours);
        LeaveCriticalSection(&ours);
        LeaveCriticalSection(&ours);
        enter(theirs);
        const bool isFree = canEnter(ours) && !canEnter(theirs) && TryEnterCriticalSection(&orphaned);
        return isOurs && isFree ? 0 : 1;
    };
    EXPECT_EQ(Forked([&] { return Forked(check).Code(); }).Code(), 0);
    LeaveCriticalSection(&ours);
    SetEvent(go);
}

TEST(Mutexes, ClosedByTheirOwnerAreForgotten) {
    const Worker owner([] {
        for (int i = 0; i < 1'000; ++i)
            const Owned mutex = Mutex(true);
        const Owned mutex = Mutex(true);
        return CodeOf(ReleaseMutex(mutex));
    });
    EXPECT_EQ(owner.Result(), 0u);
}

class WatchedLock : public testing::Test {
  protected:
    WatchedLock() {
        InitializeCriticalSection(&m_lock);
        InitializeCriticalSectionEx(&m_other, 0, CRITICAL_SECTION_NO_DEBUG_INFO);
    }
    ~WatchedLock() override {
        DeleteCriticalSection(&m_lock);
        DeleteCriticalSection(&m_other);
    }

    template <class Call>
    static unsigned long Reports(Call call) {
        const unsigned long before = Platform::WaitsUnderLock();
        call();
        return Platform::WaitsUnderLock() - before;
    }

    CRITICAL_SECTION m_lock;
    CRITICAL_SECTION m_other;
    Owned m_event = ManualEvent(true);
};

TEST_F(WatchedLock, ReportsEveryWaitInside) {
    EnterCriticalSection(&m_lock);
    EnterCriticalSection(&m_lock);
    LeaveCriticalSection(&m_lock);
    EXPECT_EQ(Reports([&] { Poll(m_event); }), 1u);
    EXPECT_EQ(Reports([&] { WaitAny({m_event}); }), 1u);
    EXPECT_EQ(Reports([&] { MsgWaitForMultipleObjectsEx(0, nullptr, 0, QS_ALLINPUT, 0); }), 1u);
    EXPECT_EQ(Reports([&] { Sleep(1); }), 1u);
    const Owned port = Port();
    EXPECT_EQ(Reports([&] { Post(port, 1); }), 1u);
    EXPECT_EQ(Reports([&] { Key(port); }), 1u);
    EXPECT_EQ(Reports([&] { SetEvent(m_event); }), 0u);
    LeaveCriticalSection(&m_lock);
    EXPECT_EQ(Reports([&] { Poll(m_event); }), 0u);
}

TEST_F(WatchedLock, ReportsNothingForOtherLocksAndThreads) {
    EnterCriticalSection(&m_other);
    EXPECT_EQ(Reports([&] { Poll(m_event); }), 0u);
    LeaveCriticalSection(&m_other);
    EXPECT_TRUE(TryEnterCriticalSection(&m_lock));
    std::atomic<bool> stop{false};
    EXPECT_EQ(Reports([&] {
                  Owned thread(CreateThread(
                      nullptr, 0, [](void* event) -> DWORD { return Poll(static_cast<HANDLE>(event)); },
                      HANDLE(m_event), 0, nullptr));
                  DWORD code = STILL_ACTIVE;
                  while (code == STILL_ACTIVE)
                      GetExitCodeThread(thread, &code);
              }),
              0u);
    LeaveCriticalSection(&m_lock);
}

TEST_F(WatchedLock, EndsTheProcessOnDemand) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            Platform::AbortOnWaitUnderLock(true);
            EnterCriticalSection(&m_lock);
            Poll(m_event);
        },
        "");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
