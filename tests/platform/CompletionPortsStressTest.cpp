// Invariants of completion ports under load. Each case runs for half a second, or for as many seconds as the
// environment variable TQ_STRESS_SECONDS says.
#include "Ports.h"
#include "Stress.h"
#include "TQLib/platform/Win32.h"

#include <array>
#include <chrono>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

class PortsStress : public Stress {
  protected:
    // Takes what comes, one packet or several at a time, with waits of all lengths.
    static std::size_t Take(HANDLE port, Random& random, DWORD ms) {
        Packet packet;
        if (random.Below(2)) return Get(port, packet, ms) == 0;
        std::array<OVERLAPPED_ENTRY, 8> entries;
        ULONG removed = 0;
        const ULONG room = 1 + random.Below(8);
        return GetQueuedCompletionStatusEx(port, entries.data(), room, &removed, ms, FALSE) ? removed : 0;
    }
};

// Threads post and take, wait for something else in between, change ports and end; what was posted is taken.
TEST_F(PortsStress, LosesAndDoublesNoPacket) {
    constexpr std::size_t Ports = 3;
    constexpr int Posters = 2;
    const std::array<Owned, Ports> ports{Port(1), Port(2), Port(64)};
    std::array<std::atomic<long>, Ports> balance{};
    std::atomic<int> posting{Posters};
    const Owned never = ManualEvent();
    const auto work = [&](Random& random) {
        std::size_t i = random.Below(Ports);
        for (int rounds = 1'000; posting != 0 && rounds != 0; --rounds) {
            balance[i] -= static_cast<long>(Take(ports[i], random, random.Below(3)));
            if (random.Below(50) == 0) WaitForSingleObject(never, 1);
            if (random.Below(50) == 0) i = random.Below(Ports);
        }
    };
    OnThreads(8, [&](int thread) {
        Random random(static_cast<unsigned>(thread));
        if (thread >= Posters) {
            while (posting != 0) {
                const Worker worker([&, seed = random.Below(1'000'000)] {
                    Random own(seed);
                    work(own);
                    return 0u;
                });
            }
            return;
        }
        while (Running()) {
            const std::size_t i = random.Below(Ports);
            ++balance[i];
            EXPECT_EQ(Post(ports[i], 1), 0u);
            if (random.Below(64) == 0) WaitForSingleObject(never, random.Below(2));
        }
        --posting;
    });
    for (std::size_t i = 0; i < Ports; ++i)
        EXPECT_EQ(balance[i], static_cast<long>(Drain(ports[i]).size())) << i;
}

// A packet at a time, each when the one before was taken: every wait ends at the moment when it begins.
TEST_F(PortsStress, WakesForEachOfManySinglePackets) {
    const Owned port = Port(2);
    std::atomic<long> taken{0};
    std::atomic<bool> stop{false};
    OnThreads(4, [&](int thread) {
        Random random(static_cast<unsigned>(thread));
        if (thread > 0) {
            while (!stop)
                taken += static_cast<long>(Take(port, random, thread == 1 ? 1 : Patience));
            Post(port, 1);  // for the next one
            return;
        }
        for (long posted = 1; Running(); ++posted) {
            Post(port, 1);
            AwaitChange(taken, posted - 1);
            for (unsigned i = random.Below(200); i != 0; --i)
                SwitchToThread();
        }
        stop = true;
        Post(port, 1);
    });
}

// A packet that comes at the moment when a wait's time is over ends the wait, or is there afterwards. Which
// of the two it was moves the next packet to the other side, so that all come close to that moment.
TEST_F(PortsStress, LosesNoPacketThatComesWithTheTimeout) {
    using Clock = std::chrono::steady_clock;
    const Owned port = Port(2);
    std::atomic<Clock::time_point> begin{};
    std::atomic<bool> timedOut{false};
    std::atomic<bool> stop{false};
    const Worker taker([&] {
        for (Packet packet; !stop;) {
            begin = Clock::now();
            timedOut = Get(port, packet, 1) == WAIT_TIMEOUT;
            if (timedOut && !stop) {
                EXPECT_EQ(Get(port, packet, Patience), 0u);
            }
        }
        return 0u;
    });
    auto after = std::chrono::microseconds(1'000);
    for (Clock::time_point before{}, now; Running(); before = now) {
        while ((now = begin) == before)
            SwitchToThread();
        after += std::chrono::microseconds(timedOut ? -2 : 2);
        while (Clock::now() < now + after) {
        }
        Post(port, 1);
    }
    stop = true;
    Post(port, 1);
}

// Every packet posted before the closing was taken or is dropped, every wait ends.
TEST_F(PortsStress, EndsAllWaitsWithThePort) {
    if (OnWine()) GTEST_SKIP() << "Wine leaves the threads waiting";
    Random random(1);
    while (Running()) {
        Owned port = Port(random.Below(3));
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < 4; ++i)
            workers.push_back(std::make_unique<Worker>([handle = HANDLE(port)] {
                Packet packet;
                DWORD code = 0;
                while (code == 0) {
                    Post(handle, 1);
                    code = Get(handle, packet, INFINITE);
                    if (code == 0) code = Get(handle, packet, INFINITE);
                }
                return code;
            }));
        for (unsigned i = random.Below(2'000); i != 0; --i)
            SwitchToThread();
        port.Close();
        for (const auto& worker : workers) {
            const DWORD code = worker->Result();
            EXPECT_TRUE(code == ERROR_ABANDONED_WAIT_0 || code == ERROR_INVALID_HANDLE) << code;
        }
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
