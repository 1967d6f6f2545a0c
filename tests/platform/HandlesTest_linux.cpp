#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <atomic>
#include <barrier>
#include <cstdint>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

HANDLE OpenRoot() {
    return CreateFileW(L"/", 0, 0, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

// The platform uses the number of a closed handle again soon, the layer does not.
TEST(HandleTable, DoesNotUseANumberAgain) {
    std::set<HANDLE> seen;
    for (int i = 0; i < 20'000; ++i) {
        const HANDLE handle = OpenRoot();
        ASSERT_TRUE(seen.insert(handle).second) << i;
        ASSERT_EQ(CodeOf(CloseHandle(handle)), 0u);
    }
}

// A closed slot serves again whichever thread closed it: the table does not grow with what is made here and
// closed there.
TEST(HandleTable, UsesASlotAgainThatAnotherThreadClosed) {
    constexpr std::size_t Rounds = 400, InRound = 256;
    const auto slotOf = [](HANDLE handle) {
        constexpr std::uint64_t SlotBits = 0x03FFFFFC;
        return reinterpret_cast<std::uint64_t>(handle) & SlotBits;
    };
    std::vector<HANDLE> handles(InRound);
    std::set<std::uint64_t> slots;
    std::barrier turn(2);
    std::thread closer([&] {
        for (std::size_t i = 0; i < Rounds; ++i) {
            turn.arrive_and_wait();
            for (const HANDLE handle : handles)
                CloseHandle(handle);
            turn.arrive_and_wait();
        }
    });
    for (std::size_t i = 0; i < Rounds; ++i) {
        for (HANDLE& handle : handles) {
            handle = CreateEventW(nullptr, FALSE, FALSE, nullptr);
            slots.insert(slotOf(handle));
        }
        turn.arrive_and_wait();
        turn.arrive_and_wait();
    }
    closer.join();
    EXPECT_LT(slots.size(), Rounds * InRound / 10);
}

TEST(HandleTable, TakesNoGarbageForAHandle) {
    const HANDLE open = OpenRoot();
    std::mt19937_64 random(1);
    const auto bits = reinterpret_cast<std::uint64_t>(open);
    for (int i = 0; i < 200'000; ++i) {
        // Any number, and numbers that differ from a handle in one bit.
        const std::uint64_t value = i % 2 ? random() : bits ^ std::uint64_t{1} << random() % 64;
        ASSERT_EQ(CodeOf(CloseHandle(reinterpret_cast<HANDLE>(value))), ERROR_INVALID_HANDLE)
            << std::hex << value;
    }
    EXPECT_EQ(CodeOf(CloseHandle(open)), 0u);
}

// Three threads use and close each handle at the same instant: one of them closes it, and no use meets what
// was freed.
TEST(HandleTable, ClosesAHandleOnceForThreadsThatRace) {
    constexpr int Rounds = 3000;
    std::atomic<int> closed{0}, wrong{0};
    HANDLE handle = nullptr;
    std::barrier start(3, [&]() noexcept { handle = OpenRoot(); });
    std::barrier finish(3);
    const auto race = [&] {
        for (int i = 0; i < Rounds; ++i) {
            start.arrive_and_wait();
            DWORD flags;
            const DWORD used = CodeOf(GetHandleInformation(handle, &flags));
            if (used && used != ERROR_INVALID_HANDLE) ++wrong;
            if (CloseHandle(handle)) ++closed;
            finish.arrive_and_wait();
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back(race);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(closed, Rounds);
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
