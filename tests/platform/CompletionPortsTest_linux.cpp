// What only the layer promises, or what can only be seen by looking at a thread from outside.
#include "Ports.h"
#include "SleepingThreads_linux.h"
#include "support/FailCall.h"

#include <array>
#include <chrono>
#include <future>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

using Keys = std::vector<ULONG_PTR>;

std::unique_ptr<Taker> SleepingTaker(HANDLE port, DWORD ms = Patience) {
    auto taker = std::make_unique<Taker>(port, ms);
    AwaitSleep(taker->Id());
    return taker;
}

TEST(SleepingTakers, AreWokenFromTheLastToTheFirst) {
    const Owned port = Port(64);
    std::array<std::unique_ptr<Taker>, 4> takers;
    for (auto& taker : takers)
        taker = SleepingTaker(port);
    for (DWORD key = 1; key <= takers.size(); ++key) {
        Post(port, key);
        EXPECT_EQ(takers[takers.size() - key]->Result(), key);
    }
}

TEST(SleepingTakers, AreServedBeforeThePoster) {
    for (int i = 0; i < 50; ++i) {
        const Owned port = Port(64);
        const auto taker = SleepingTaker(port);
        Post(port, 1);
        ASSERT_EQ(Drain(port), Keys{}) << i;
        ASSERT_EQ(taker->Result(), 1u) << i;
    }
}

TEST(SleepingTakers, AreAbandonedWithTheLastHandle) {
    Owned port = Port();
    Owned copy = Duplicate(port);
    const std::array takers{SleepingTaker(port, INFINITE), SleepingTaker(port)};
    port.Close();
    Post(copy, 1);
    EXPECT_EQ(takers[1]->Result(), 1u);
    copy.Close();
    EXPECT_EQ(takers[0]->Result(), Taker::Failed + ERROR_ABANDONED_WAIT_0);
}

class ConcurrencyValue : public testing::TestWithParam<DWORD> {
  protected:
    static DWORD Processors() {
        SYSTEM_INFO system;
        GetSystemInfo(&system);
        return system.dwNumberOfProcessors;
    }
};

// Running threads leave a packet alone that waits beside a sleeping one, until one of them asks for it.
TEST_P(ConcurrencyValue, IsHowManyThreadsRun) {
    const DWORD most = GetParam() != 0 ? GetParam() : Processors();
    const Owned port = Port(GetParam());
    std::atomic<DWORD> running{0};
    std::atomic<bool> goOn{false};
    std::vector<std::unique_ptr<Worker>> workers;
    for (DWORD i = 0; i < most; ++i)
        workers.push_back(std::make_unique<Worker>([&] {
            EXPECT_EQ(Key(port), 1u);
            ++running;
            while (!goOn)
                SwitchToThread();
            return static_cast<DWORD>(Key(port, 0));
        }));
    for (DWORD i = 0; i < most; ++i)
        Post(port, 1);
    while (running != most)
        SwitchToThread();
    const auto sleeper = SleepingTaker(port);
    Post(port, 2);
    goOn = true;
    DWORD keys = 0;
    for (const auto& worker : workers)
        keys += worker->Result();
    EXPECT_EQ(keys, 2u);
    Post(port, 3);
    EXPECT_EQ(sleeper->Result(), 3u);
}

INSTANTIATE_TEST_SUITE_P(Of, ConcurrencyValue, testing::Values(0, 1, 3));

// As a thread does that took a packet.
TEST(ConcurrencyValues, CountAThreadThatFoundNoPacket) {
    const Owned port = Port(1);
    EXPECT_EQ(Key(port, 0), 0u);
    const auto sleeper = SleepingTaker(port);
    Post(port, 1);
    EXPECT_EQ(Drain(port), Keys{1});
    Post(port, 2);
    EXPECT_EQ(sleeper->Result(), 2u);
}

// One thread may run at a time: this one, which took a packet, so that the next one is queued.
class OneAtATime : public testing::Test {
  protected:
    OneAtATime() {
        Post(m_port, 1);
        Key(m_port);
    }

    const Owned m_port = Port(1);
};

// No packet is left when the wait is over: the sleeper got it when the wait began.
TEST_F(OneAtATime, AWaitMakesRoomForAnotherThreadAtOnce) {
    const Owned event = ManualEvent();
    const Owned named =
        ManualEvent(false, (L"CompletionPorts." + std::to_wstring(GetCurrentProcessId())).c_str());
    const auto waits = std::to_array<std::function<void()>>({
        [&] { WaitForSingleObject(event, 1); },
        [&] { WaitForSingleObject(named, 1); },
        [&] {
            WaitAny({event, named}, 1);
        },
        [&] {
            WaitAll({event, ManualEvent()}, 1);
        },
        [&] {
            WaitAll({event, named}, 1);
        },
        [] { MsgWaitForMultipleObjectsEx(0, nullptr, 1, QS_ALLINPUT, 0); },
        [] { Sleep(1); },
    });
    for (std::size_t i = 0; i < waits.size(); ++i) {
        const auto sleeper = SleepingTaker(m_port);
        Post(m_port, 2);
        waits[i]();
        EXPECT_EQ(Drain(m_port), Keys{}) << i;
        EXPECT_EQ(sleeper->Result(), 2u) << i;
    }
}

TEST_F(OneAtATime, TheEndOfAThreadMakesRoomForAnotherAtOnce) {
    std::unique_ptr<Taker> sleeper;
    const Worker worker([&] {
        const ULONG_PTR key = Key(m_port);  // comes when the test's own thread waits for this one
        sleeper = SleepingTaker(m_port);
        Post(m_port, 3);
        return static_cast<DWORD>(key);
    });
    Post(m_port, 2);
    EXPECT_EQ(worker.Result(), 2u);
    EXPECT_EQ(Drain(m_port), Keys{});
    EXPECT_EQ(sleeper->Result(), 3u);
}

TEST_F(OneAtATime, AnotherPortMakesRoomForAnotherThreadAtOnce) {
    const auto sleeper = SleepingTaker(m_port);
    Post(m_port, 2);
    const Owned elsewhere = Port();
    EXPECT_EQ(Key(elsewhere, 0), 0u);
    EXPECT_EQ(Drain(m_port), Keys{});
    EXPECT_EQ(sleeper->Result(), 2u);
}

class UnseenWaits : public OneAtATime {
  protected:
    std::unique_ptr<Worker> Other() {
        return std::make_unique<Worker>([this] {
            m_taken.set_value(Key(m_port));
            return 0u;
        });
    }
    // Sleeps until the other thread has a packet, in a way that the layer does not see.
    ULONG_PTR AwaitOther() {
        std::future<ULONG_PTR> taken = m_taken.get_future();
        const auto status = taken.wait_for(std::chrono::milliseconds(Patience));
        return status == std::future_status::ready ? taken.get() : 0;
    }

    std::promise<ULONG_PTR> m_taken;
};

TEST_F(UnseenWaits, MakeRoomForAThreadThatSleepsAlready) {
    const auto other = Other();
    AwaitSleep(other->Id());
    Post(m_port, 2);
    EXPECT_EQ(AwaitOther(), 2u);
}

TEST_F(UnseenWaits, MakeRoomForAThreadThatComesLater) {
    Post(m_port, 2);
    const auto other = Other();
    EXPECT_EQ(AwaitOther(), 2u);
}

TEST_F(UnseenWaits, AreStillFoundWhenTheThreadThatLookedForThemHasGone) {
    const auto first = SleepingTaker(m_port, 50);
    const auto other = Other();
    AwaitSleep(other->Id());
    Post(m_port, 2);
    for (DWORD code = STILL_ACTIVE; code == STILL_ACTIVE; SwitchToThread())
        GetExitCodeThread(first->Thread(), &code);
    EXPECT_EQ(AwaitOther(), 2u);
    EXPECT_EQ(first->Result(), Taker::Failed + WAIT_TIMEOUT);
}

TEST_F(UnseenWaits, AreNotSeenInAThreadThatRuns) {
    const auto sleeper = SleepingTaker(m_port);
    Post(m_port, 2);
    // Were it taken for one that sleeps, it would be at the first of these looks.
    for (const ULONGLONG end = GetTickCount64() + 60; GetTickCount64() < end;)
        SwitchToThread();
    EXPECT_EQ(Drain(m_port), Keys{2});
    Post(m_port, 3);
    EXPECT_EQ(Await(sleeper->Thread()), WAIT_OBJECT_0);
}

TEST(CompletionPorts, AreNotWaitedOnLikeOtherObjects) {
    const Owned port = Port();
    EXPECT_EQ(WaitCode(Poll(port)), ERROR_INVALID_HANDLE);
}

TEST(CompletionPorts, TakeNoFiles) {
    const TemporaryFolder folder;
    const Owned file(
        CreateFileW((folder / L"file").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    const Owned port = Port();
    EXPECT_EQ(CodeOf(CreateIoCompletionPort(file, nullptr, 0, 0)), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(CodeOf(CreateIoCompletionPort(file, port, 0, 0)), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(CodeOf(CreateIoCompletionPort(file, file, 0, 0)), ERROR_INVALID_HANDLE);
}

TEST(CompletionPorts, FailOnDemand) {
    const Owned port = Port();
    Packet packet;
    OVERLAPPED_ENTRY entry;
    ULONG removed;
    const auto failing = [](const char* function, auto call) {
        const FailCall fault(function, ERROR_NOT_ENOUGH_MEMORY);
        return call();
    };
    EXPECT_EQ(failing("CreateIoCompletionPort", [] { return CodeOf(Port()); }), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(failing("PostQueuedCompletionStatus", [&] { return Post(port, 1); }), ERROR_NOT_ENOUGH_MEMORY);
    Post(port, 2);
    EXPECT_EQ(failing("GetQueuedCompletionStatus", [&] { return Get(port, packet, 0); }),
              ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(
        failing("GetQueuedCompletionStatusEx",
                [&] { return CodeOf(GetQueuedCompletionStatusEx(port, &entry, 1, &removed, 0, FALSE)); }),
        ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(Drain(port), Keys{2});
}

TEST(CompletionPorts, LoseNothingWhenThereIsNoMemory) {
    {
        const FailAllocation fault;
        EXPECT_EQ(CodeOf(Port()), ERROR_NOT_ENOUGH_MEMORY);
    }
    const Owned port = Port();
    Keys posted = Drain(port);
    posted.reserve(10'000);
    DWORD code = 0;
    {
        const FailAllocation fault;
        while ((code = Post(port, posted.size())) == 0)
            posted.push_back(posted.size());
    }
    EXPECT_EQ(code, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(Post(port, posted.size()), 0u);
    posted.push_back(posted.size());
    EXPECT_EQ(Drain(port), posted);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
