#include "PlatformTest.h"
#include "platform/Win32.h"

#include <cstdint>
#include <random>
#include <set>

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

}  // namespace
}  // namespace Quellan::Corvel::Test
