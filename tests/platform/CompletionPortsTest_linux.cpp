// What only the layer promises, or what can only be seen by looking at a thread from outside.
#include "Ports.h"
#include "SleepingThreads_linux.h"
#include "support/FailCall.h"

#include <array>
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

// No thread that has taken a packet looked at: these all run, at a port made for one.
TEST(CompletionPorts, HandOutPacketsWhateverTheTakersOfOthersDo) {
    constexpr DWORD Takers = 4;
    const Owned port = Port(1);
    std::atomic<DWORD> inside{0};
    std::vector<std::unique_ptr<Worker>> takers;
    for (DWORD key = 1; key <= Takers; ++key) {
        takers.push_back(std::make_unique<Worker>([&] {
            EXPECT_NE(Key(port), 0u);
            for (++inside; inside != Takers;)
                SwitchToThread();
            return 0u;
        }));
        if (key == 1) AwaitSleep(takers.back()->Id());  // the others find one queued, or not
        Post(port, key);
    }
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
