#include "PlatformTest.h"
#include "platform/Win32.h"

#include <atomic>
#include <set>
#include <thread>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

class Handles : public testing::Test {
  protected:
    HANDLE Open() const {
        return CreateFileW(m_folder.Path().c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    }

    static DWORD Use(HANDLE handle) {
        DWORD flags;
        return CodeOf(GetHandleInformation(handle, &flags));
    }

    TemporaryFolder m_folder;
};

TEST_F(Handles, AreInvalidOnceClosed) {
    const HANDLE handle = Open();
    ASSERT_EQ(Use(handle), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(handle)), 0u);
    EXPECT_EQ(Use(handle), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(CloseHandle(handle)), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(Handles, AreInvalidWhenTheyNeverWereOne) {
    // Values no longer than 32 bits: the platform itself looks no further.
    for (const ULONG_PTR value : {ULONG_PTR{0}, ULONG_PTR{0x7FFFFFF0}, ULONG_PTR{0x6FFFFFFC}}) {
        EXPECT_EQ(CodeOf(CloseHandle(reinterpret_cast<HANDLE>(value))), DWORD{ERROR_INVALID_HANDLE}) << value;
    }
}

TEST_F(Handles, ThatStandForTheCallerNeedNoClosing) {
    EXPECT_EQ(CodeOf(CloseHandle(GetCurrentProcess())), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(GetCurrentThread())), 0u);
}

TEST_F(Handles, OfASearchAreClosedByTheirOwnCallAlone) {
    WIN32_FIND_DATAW data;
    const HANDLE find = FindFirstFileW((m_folder / L"*").c_str(), &data);
    const HANDLE file = Open();
    EXPECT_EQ(CodeOf(CloseHandle(find)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(FindClose(file)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(FindClose(find)), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(file)), 0u);
}

// Four threads use, close and replace the same handles: each is closed once, and no use meets a freed object.
TEST_F(Handles, AreClosedOnceByThreadsThatRace) {
    constexpr int Rounds = 2000;
    constexpr int Threads = 4;
    std::atomic<HANDLE> shared[8];
    for (auto& handle : shared)
        handle = Open();
    std::atomic<int> opened{8}, closed{0}, wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < Threads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < Rounds; ++i) {
                std::atomic<HANDLE>& place = shared[(i + t) % 8];
                const HANDLE handle = place.load();
                const DWORD used = Use(handle);
                if (used && used != ERROR_INVALID_HANDLE) ++wrong;
                if (i % 3 != 0) continue;
                if (!CloseHandle(handle)) continue;
                ++closed;
                place = Open();
                ++opened;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    // A thread may have replaced a handle that another one had just put there: those stay open until here.
    for (auto& handle : shared)
        if (CloseHandle(handle)) ++closed;
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(closed, opened);
    EXPECT_GT(closed, 8);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
