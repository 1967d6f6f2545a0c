// Invariants of waits under load. Each case runs for half a second, or for as many seconds as the environment
// variable TQ_STRESS_SECONDS says; what it went through stands in the report of --gtest_output=xml.
#include "Ports.h"
#include "Stress.h"
#include "TQLib/platform/Win32.h"
#include "support/Role.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <numeric>
#include <random>

namespace Quellan::Corvel::Test {
namespace {

using WaitsStress = Stress;

// As std::mt19937, with numbers of 32 bits on both platforms.
using Numbers = std::mersenne_twister_engine<std::uint32_t, 32, 624, 397, 31, 0x9908B0DF, 11, 0xFFFFFFFF, 7,
                                             0x9D2C5680, 15, 0xEFC60000, 18, 1812433253>;

// Posts and successful waits balance, whatever the waits: for any and for all, with time-outs of all lengths.
TEST_F(WaitsStress, LosesAndDoublesNoPost) {
    constexpr std::size_t Kinds = 6;
    constexpr int Posters = 2;
    std::array<Owned, Kinds> semaphores;
    for (Owned& semaphore : semaphores)
        semaphore = Semaphore(0, 1'000'000'000);
    std::array<std::atomic<long>, Kinds> balance{};
    std::atomic<int> posting{Posters};
    OnThreads(8, [&](int thread) {
        Numbers random(static_cast<unsigned>(thread));
        if (thread < Posters) {
            while (Running()) {
                const std::size_t i = random() % Kinds;
                const auto count = static_cast<LONG>(1 + random() % 2);
                balance[i] += count;
                ReleaseSemaphore(semaphores[i], count, nullptr);
                if (random() % 4 == 0) SwitchToThread();
            }
            --posting;
            return;
        }
        while (posting != 0) {
            std::array<std::size_t, Kinds> order{0, 1, 2, 3, 4, 5};
            std::shuffle(order.begin(), order.end(), random);
            const bool all = random() % 3 == 0;
            std::vector<HANDLE> handles;
            for (std::size_t i = 0; i < 1 + random() % (all ? 3 : Kinds); ++i)
                handles.push_back(semaphores[order[i]]);
            const DWORD status = all ? WaitAll(handles, random() % 3) : WaitAny(handles, random() % 3);
            if (status == DWORD{WAIT_TIMEOUT}) continue;
            if (all)
                for (std::size_t i = 0; i < handles.size(); ++i)
                    --balance[order[i]];
            else
                --balance[order.at(status)];
        }
    });
    for (std::size_t i = 0; i < Kinds; ++i) {
        while (Poll(semaphores[i]) == WAIT_OBJECT_0)
            --balance[i];
        EXPECT_EQ(balance[i], 0) << i;
    }
}

// Tokens go round among threads that wait without end or give up soon: a lost wake-up would leave a token
// standing, a wait that takes and gives up all the same would lose it.
TEST_F(WaitsStress, LeavesNoTokenStanding) {
    constexpr std::size_t Threads = 16;
    constexpr std::size_t Tokens = 5;
    std::array<std::array<Owned, Threads>, Tokens> places;
    for (auto& token : places)
        for (Owned& place : token)
            place = AutoEvent();
    const Owned stop = ManualEvent();
    std::array<std::atomic<long>, Tokens> hops{};
    std::vector<std::unique_ptr<Worker>> workers;
    for (std::size_t i = 0; i < Threads; ++i)
        workers.push_back(std::make_unique<Worker>([&, i] {
            Numbers random(static_cast<unsigned>(i));
            std::vector<HANDLE> handles{stop};
            for (const auto& token : places)
                handles.push_back(token[i]);
            for (;;) {
                const DWORD status = WaitAny(handles, i % 2 ? INFINITE : 1);
                if (status == WAIT_OBJECT_0) return 0u;
                if (status == DWORD{WAIT_TIMEOUT}) continue;
                const std::size_t token = status - WAIT_OBJECT_0 - 1;
                ++hops.at(token);
                SetEvent(places.at(token)[random() % Threads]);
            }
        }));
    for (const auto& token : places)
        SetEvent(token[0]);
    while (Running())
        for (auto& count : hops)
            AwaitChange(count, count);
    SetEvent(stop);
    workers.clear();
    for (const auto& token : places)
        EXPECT_EQ(std::ranges::count_if(token, [](HANDLE place) { return Poll(place) == WAIT_OBJECT_0; }), 1);
    RecordProperty("handovers", std::to_string(std::accumulate(hops.begin(), hops.end(), 0L)));
}

// Threads wait for the same events again and again, close some and make others in between, and end: whoever comes
// into the memory of a closed event, or of a thread that has ended, gets its own signals and no others.
TEST_F(WaitsStress, KeepsNothingOfWhatIsClosed) {
    constexpr std::size_t Events = 5;
    struct Side {
        std::array<Owned, Events> events;
        Owned answer = AutoEvent();
    };
    std::atomic<long> signals{0};
    OnThreads(4, [&](int number) {
        Numbers random(static_cast<unsigned>(number));
        while (Running()) {
            Side side;
            for (Owned& event : side.events)
                event = AutoEvent();
            std::atomic<std::size_t> wanted{Events};
            const std::size_t turns = random() % 64;
            const Worker waiter([&] {
                Numbers choice(static_cast<unsigned>(turns));
                for (std::size_t i = 0; i < turns; ++i) {
                    const std::vector<HANDLE> handles(side.events.begin(), side.events.end());
                    const DWORD ms = choice() % 4 == 0 ? choice() % 2 : Patience;
                    const DWORD status = WaitAny(handles, ms);
                    if (status == WAIT_TIMEOUT && ms != Patience) {
                        --i;
                        continue;
                    }
                    if (status != wanted) return static_cast<DWORD>(i + 1);
                    if (choice() % 4 == 0) side.events[choice() % Events] = AutoEvent();
                    if (choice() % 8 == 0) WaitAll({side.events[0], side.events[1]}, 0);
                    SetEvent(side.answer);
                }
                return DWORD{0};
            });
            for (std::size_t i = 0; i < turns; ++i) {
                wanted = random() % Events;
                SetEvent(side.events[wanted]);
                if (WaitAny({side.answer, waiter.Thread()}, Patience) != WAIT_OBJECT_0) break;
                ++signals;
            }
            EXPECT_EQ(waiter.Result(), 0u);
        }
    });
    RecordProperty("handovers", std::to_string(signals));
}

// Neighbours at a round table take two or three forks at once, and nobody ever holds one that is taken.
class Table : public WaitsStress {
  protected:
    static constexpr std::size_t Seats = 5;

    template <class MakeFork, class PutBack>
    void Dine(MakeFork makeFork, PutBack putBack) {
        std::array<Owned, Seats> forks;
        for (Owned& fork : forks)
            fork = makeFork();
        std::array<std::atomic<int>, Seats> holders{};
        std::array<std::atomic<long>, Seats> meals{};
        OnThreads(Seats, [&](int thread) {
            const auto seat = static_cast<std::size_t>(thread);
            Numbers random(static_cast<unsigned>(thread));
            while (Running()) {
                std::vector<std::size_t> mine{seat, (seat + 1) % Seats};
                if (random() % 2) mine.push_back((seat + 2) % Seats);
                std::shuffle(mine.begin(), mine.end(), random);
                std::vector<HANDLE> handles;
                for (const std::size_t fork : mine)
                    handles.push_back(forks[fork]);
                if (WaitAll(handles, random() % 2 ? Patience : random() % 3) != WAIT_OBJECT_0) continue;
                ++meals[seat];
                for (const std::size_t fork : mine)
                    EXPECT_EQ(holders[fork]++, 0);
                if (random() % 16 == 0) SwitchToThread();
                for (const std::size_t fork : mine)
                    --holders[fork];
                for (const HANDLE fork : handles)
                    putBack(fork);
            }
        });
        for (const auto& count : meals)
            EXPECT_GT(count, 0);
        RecordProperty("handovers", std::to_string(std::accumulate(meals.begin(), meals.end(), 0L)));
    }
};

TEST_F(Table, IsSharedWithEvents) {
    Dine([] { return AutoEvent(true); }, [](HANDLE fork) { SetEvent(fork); });
}

TEST_F(Table, IsSharedWithMutexes) {
    Dine([] { return Mutex(); }, [](HANDLE fork) { ReleaseMutex(fork); });
}

TEST_F(Table, IsSharedWithNamedMutexes) {
    int count = 0;
    const std::wstring prefix = L"Table." + std::to_wstring(GetCurrentProcessId()) + L".";
    Dine([&] { return Mutex(false, (prefix + std::to_wstring(count++)).c_str()); },
         [](HANDLE fork) { ReleaseMutex(fork); });
}

TEST_F(WaitsStress, AbandonsEachMutexOnce) {
    const Owned mutex = Mutex();
    const Owned event = AutoEvent();
    const Owned set = ManualEvent(true);
    for (int i = 0; Running(); ++i) {
        const Worker owner([&] {
            Await(mutex);
            SetEvent(event);
            return 0u;
        });
        Await(event);
        const DWORD status = i % 3 == 0   ? Await(mutex)
                             : i % 3 == 1 ? WaitAny({event, mutex}, Patience) - 1
                                          : WaitAll({mutex, set}, Patience);
        ASSERT_EQ(status, DWORD{WAIT_ABANDONED_0}) << i;
        ASSERT_TRUE(ReleaseMutex(mutex));
        ASSERT_EQ(Poll(mutex), WAIT_OBJECT_0);
        ASSERT_TRUE(ReleaseMutex(mutex));
    }
}

// Handles are closed and replaced while others use them: a call works, or says that the handle is invalid.
TEST_F(WaitsStress, StandsHandlesThatAreClosedMeanwhile) {
    std::array<std::atomic<HANDLE>, 8> handles{};
    OnThreads(4, [&](int thread) {
        Numbers random(static_cast<unsigned>(thread));
        while (Running()) {
            auto& slot = handles[random() % handles.size()];
            const HANDLE handle = slot;
            const HANDLE other = handles[random() % handles.size()];
            if (random() % 4 == 0) {
                const HANDLE old = slot.exchange(CreateEventW(nullptr, random() % 2, FALSE, nullptr));
                if (old) {
                    EXPECT_TRUE(CloseHandle(old));
                }
            } else if (random() % 2) {
                SetEvent(handle);
            } else {
                const HANDLE both[] = {handle, other};
                const DWORD status = WaitForMultipleObjects(2, both, random() % 2, random() % 2);
                if (status == WAIT_FAILED) {
                    EXPECT_NE(GetLastError(), DWORD{ERROR_ACCESS_DENIED});
                }
            }
        }
    });
    for (const auto& handle : handles)
        CloseHandle(handle);
}

// A packet that comes at the moment when a wait's time is over ends the wait, or is there afterwards. Which
// of the two it was moves the next packet to the other side, so that all come close to that moment.
TEST_F(WaitsStress, LosesNoPacketThatComesWithTheTimeout) {
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
TEST_F(WaitsStress, EndsAllWaitsWithThePort) {
    if (OnWine()) GTEST_SKIP() << "Wine leaves the threads waiting";
    Numbers random(1);
    while (Running()) {
        Owned port = Port(random() % 3);
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
        for (unsigned i = random() % 2'000; i != 0; --i)
            SwitchToThread();
        port.Close();
        for (const auto& worker : workers) {
            const DWORD code = worker->Result();
            EXPECT_TRUE(code == ERROR_ABANDONED_WAIT_0 || code == ERROR_INVALID_HANDLE) << code;
        }
    }
}

enum RoleExit { Done = 0, NotThere = 10, TwoOwners = 11 };

// Takes the mutex again and again until it is killed or told to stop. Whoever is inside puts one into a
// semaphore that holds one at most, and takes it out again.
const Role g_visitor("visit", [](const RoleArguments& arguments) -> int {
    const Owned mutex(OpenMutexW(MUTEX_ALL_ACCESS, FALSE, Wide(arguments.at(0)).c_str()));
    const Owned inside(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, Wide(arguments.at(1)).c_str()));
    const Owned stop(OpenEventW(EVENT_ALL_ACCESS, FALSE, Wide(arguments.at(2)).c_str()));
    if (!mutex || !inside || !stop) return NotThere;
    for (;;) {
        const DWORD status = WaitAny({stop, mutex}, INFINITE);
        if (status == WAIT_OBJECT_0) return Done;
        if (status == WAIT_ABANDONED_0 + 1) Poll(inside);  // where the one before was killed
        if (!ReleaseSemaphore(inside, 1, nullptr)) return TwoOwners;
        Poll(inside);
        ReleaseMutex(mutex);
    }
});

TEST_F(WaitsStress, KeepsANamedMutexWholeWhenItsOwnersAreKilled) {
    const std::string prefix = "Visit." + std::to_string(GetCurrentProcessId());
    const auto name = [&](const char* what) { return prefix + what; };
    const Owned mutex = Mutex(false, Wide(name("mutex")).c_str());
    const Owned inside = Semaphore(0, 1, Wide(name("inside")).c_str());
    const Owned stop = ManualEvent(false, Wide(name("stop")).c_str());
    Numbers random(1);
    std::array<std::unique_ptr<RoleProcess>, 3> visitors;
    const auto visit = [&] {
        return std::make_unique<RoleProcess>("visit",
                                             RoleArguments{name("mutex"), name("inside"), name("stop")});
    };
    std::ranges::generate(visitors, visit);
    int killed = 0;
    int abandoned = 0;
    while (Running()) {
        auto& victim = visitors[random() % visitors.size()];
        Sleep(random() % 10);
        victim->Kill();
        ++killed;
        victim = visit();
        const DWORD status = Await(mutex);
        ASSERT_TRUE(status == WAIT_OBJECT_0 || status == WAIT_ABANDONED_0) << status;
        if (status == WAIT_ABANDONED_0) {
            ++abandoned;
            Poll(inside);
        }
        ASSERT_TRUE(ReleaseSemaphore(inside, 1, nullptr));
        Poll(inside);
        ASSERT_TRUE(ReleaseMutex(mutex));
    }
    SetEvent(stop);
    for (const auto& visitor : visitors)
        EXPECT_EQ(visitor->ExitCode(), Done);
    RecordProperty("killed", killed);
    RecordProperty("abandoned", abandoned);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
