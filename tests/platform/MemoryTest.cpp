#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

constexpr SIZE_T PageSize = 0x1000;

bool IsZero(const void* memory, SIZE_T size) {
    return std::ranges::all_of(std::span(static_cast<const char*>(memory), size),
                               [](char c) { return c == 0; });
}

// Pages that end with the test.
class Pages {
  public:
    explicit Pages(SIZE_T count, DWORD type = MEM_RESERVE | MEM_COMMIT, DWORD protect = PAGE_READWRITE)
        : m_base(static_cast<char*>(VirtualAlloc(nullptr, count * PageSize, type, protect))) {}
    ~Pages() { VirtualFree(m_base, 0, MEM_RELEASE); }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    char* At(SIZE_T page) const { return m_base + page * PageSize; }

  private:
    char* m_base;
};

DWORD Protect(void* address, SIZE_T size, DWORD protect) {
    DWORD old = 0;
    return VirtualProtect(address, size, protect, &old) ? old : 0;
}

TEST(LocalHeap, GivesBlocksOfTheSizeAskedFor) {
    const HLOCAL block = LocalAlloc(LPTR, 1000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(block) % 16, 0u);
    EXPECT_TRUE(IsZero(block, 1000));
    EXPECT_EQ(LocalFree(block), nullptr);
    EXPECT_EQ(LocalFree(nullptr), nullptr);
    EXPECT_EQ(CodeOf(LocalAlloc(LMEM_FIXED, SIZE_MAX - 4)), DWORD{ERROR_NOT_ENOUGH_MEMORY});
}

TEST(Pages, AreZeroAndBeginAtTheGranularity) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_EQ(info.dwPageSize, PageSize);
    EXPECT_EQ(info.dwAllocationGranularity, 0x10000u);
    EXPECT_GE(info.dwNumberOfProcessors, 1u);
    const Pages pages(3);
    EXPECT_TRUE(IsZero(pages.At(0), 3 * PageSize));
    EXPECT_EQ(reinterpret_cast<ULONG_PTR>(pages.At(0)) % info.dwAllocationGranularity, 0u);
}

TEST(Pages, AreReservedFirstAndCommittedThen) {
    const Pages pages(4, MEM_RESERVE);
    EXPECT_TRUE(IsBadReadPtr(pages.At(0), 1));
    EXPECT_EQ(CodeOf(Protect(pages.At(0), 1, PAGE_READONLY)), DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_EQ(VirtualAlloc(pages.At(1) + 5, 10, MEM_COMMIT, PAGE_READWRITE), pages.At(1));
    EXPECT_FALSE(IsBadWritePtr(pages.At(1), PageSize));
    EXPECT_TRUE(IsBadWritePtr(pages.At(1), PageSize + 1));
    EXPECT_EQ(CodeOf(Protect(pages.At(1), 2 * PageSize, PAGE_READONLY)), DWORD{ERROR_INVALID_ADDRESS});
    *pages.At(1) = 'x';
    EXPECT_EQ(CodeOf(VirtualFree(pages.At(1), PageSize, MEM_DECOMMIT)), 0u);
    EXPECT_TRUE(IsBadReadPtr(pages.At(1), 1));
    EXPECT_NE(VirtualAlloc(pages.At(1), PageSize, MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_EQ(*pages.At(1), 0);
}

TEST(Pages, ChangeTheirProtectionAndTellTheOldOne) {
    const Pages pages(3);
    EXPECT_EQ(Protect(pages.At(1), 1, PAGE_READONLY), DWORD{PAGE_READWRITE});
    EXPECT_FALSE(IsBadReadPtr(pages.At(0), 3 * PageSize));
    EXPECT_TRUE(IsBadWritePtr(pages.At(0), 3 * PageSize));
    EXPECT_EQ(Protect(pages.At(1), 1, PAGE_NOACCESS), DWORD{PAGE_READONLY});
    EXPECT_TRUE(IsBadReadPtr(pages.At(0), 3 * PageSize));
    EXPECT_EQ(Protect(pages.At(0), 3 * PageSize, PAGE_EXECUTE_READWRITE), DWORD{PAGE_READWRITE});
    EXPECT_EQ(Protect(pages.At(1), 1, PAGE_READWRITE), DWORD{PAGE_EXECUTE_READWRITE});
}

TEST(Pages, ChangeTheProtectionOfMemoryFromElsewhere) {
    std::vector<char> heap(3 * PageSize);
    char* const page = heap.data() + PageSize - reinterpret_cast<ULONG_PTR>(heap.data()) % PageSize;
    EXPECT_EQ(Protect(page, PageSize, PAGE_READONLY), DWORD{PAGE_READWRITE});
    EXPECT_TRUE(IsBadWritePtr(page, 1));
    EXPECT_FALSE(IsBadWritePtr(page + PageSize, 1));
    EXPECT_EQ(Protect(page, PageSize, PAGE_READWRITE), DWORD{PAGE_READONLY});
    EXPECT_FALSE(IsBadWritePtr(page, 1));
}

TEST(Pages, RefuseWhatCannotBe) {
    char* const free = Pages(64).At(16);
    const Pages pages(2);
    EXPECT_EQ(CodeOf(VirtualAlloc(nullptr, 0, MEM_COMMIT, PAGE_READWRITE)), DWORD{ERROR_INVALID_PARAMETER});
    for (const SIZE_T size : {SIZE_MAX, SIZE_MAX - 0x100, SIZE_MAX - 2 * PageSize}) {
        if (OnWine()) break;  // not its sums are tested
        EXPECT_FALSE(VirtualAlloc(nullptr, size, MEM_RESERVE, PAGE_READWRITE)) << size;
        EXPECT_FALSE(VirtualAlloc(free + PageSize, size, MEM_RESERVE, PAGE_READWRITE)) << size;
        EXPECT_FALSE(VirtualAlloc(pages.At(0), size, MEM_COMMIT, PAGE_READWRITE)) << size;
        EXPECT_FALSE(VirtualFree(pages.At(0), size, MEM_DECOMMIT)) << size;
        EXPECT_EQ(Protect(pages.At(0), size, PAGE_READONLY), 0u) << size;
        EXPECT_FALSE(VirtualLock(pages.At(0), size)) << size;
    }
    EXPECT_EQ(CodeOf(VirtualAlloc(nullptr, 1, MEM_COMMIT, 0x80000)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(VirtualAlloc(pages.At(0), 1, MEM_RESERVE, PAGE_READWRITE)),
              DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_EQ(CodeOf(VirtualAlloc(pages.At(0), 0x20000, MEM_COMMIT, PAGE_READWRITE)),
              DWORD{ERROR_INVALID_ADDRESS});
    EXPECT_EQ(CodeOf(VirtualFree(pages.At(0), PageSize, MEM_RELEASE)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(VirtualProtect(pages.At(0), 1, PAGE_READONLY, nullptr)), DWORD{ERROR_NOACCESS});
}

TEST(Pages, AreLockedAndUnlocked) {
    const Pages pages(2);
    ASSERT_EQ(CodeOf(VirtualLock(pages.At(0), 2 * PageSize)), 0u);
    EXPECT_EQ(CodeOf(VirtualUnlock(pages.At(0), 2 * PageSize)), 0u);
    EXPECT_FALSE(VirtualLock(nullptr, PageSize));
    if (OnWine()) return;  // another code there, and success for what is not locked
    EXPECT_EQ(CodeOf(VirtualLock(nullptr, PageSize)), DWORD{ERROR_NOACCESS});
    EXPECT_EQ(CodeOf(VirtualUnlock(pages.At(0), PageSize)), DWORD{ERROR_NOT_LOCKED});
}

TEST(BadPointers, AreFoundAtBothEndsOfARange) {
    const Pages pages(3);
    Protect(pages.At(0), 1, PAGE_NOACCESS);
    Protect(pages.At(2), 1, PAGE_NOACCESS);
    std::memset(pages.At(1), 0x5A, PageSize);
    EXPECT_FALSE(IsBadReadPtr(pages.At(1), PageSize) || IsBadWritePtr(pages.At(1), PageSize));
    EXPECT_EQ(std::count(pages.At(1), pages.At(2), 0x5A), std::ptrdiff_t{PageSize}) << "left as they are";
    EXPECT_TRUE(IsBadReadPtr(pages.At(1) - 1, PageSize));
    EXPECT_TRUE(IsBadReadPtr(pages.At(1) + 1, PageSize));
    EXPECT_TRUE(IsBadReadPtr(nullptr, 1));
    EXPECT_FALSE(IsBadReadPtr(nullptr, 0));
    EXPECT_TRUE(IsBadReadPtr(pages.At(1), SIZE_MAX));
    EXPECT_TRUE(IsBadWritePtr(nullptr, 1));
}

TEST(BadPointers, OfTextEndWithItsTerminator) {
    const Pages pages(2);
    Protect(pages.At(1), 1, PAGE_NOACCESS);
    auto* const text = reinterpret_cast<wchar_t*>(pages.At(1)) - 3;
    std::copy_n(L"abc", 3, text);
    EXPECT_TRUE(IsBadStringPtrW(text, 4));
    EXPECT_FALSE(IsBadStringPtrW(text, 3));
    text[2] = L'\0';
    EXPECT_FALSE(IsBadStringPtrW(text, 1000));
}

TEST(Memory, HasAStatus) {
    MEMORYSTATUSEX status{};
    EXPECT_EQ(CodeOf(GlobalMemoryStatusEx(&status)), DWORD{ERROR_INVALID_PARAMETER});
    status.dwLength = sizeof status;
    ASSERT_EQ(CodeOf(GlobalMemoryStatusEx(&status)), 0u);
    EXPECT_LE(status.dwMemoryLoad, 100u);
    EXPECT_GT(status.ullAvailPhys, 0u);
    EXPECT_GE(status.ullTotalPhys, status.ullAvailPhys);
    EXPECT_GE(status.ullTotalVirtual, status.ullAvailVirtual);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
