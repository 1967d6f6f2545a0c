#include "Ports.h"
#include "TQLib/platform/Win32.h"

#include <array>
#include <numeric>

namespace Quellan::Corvel::Test {
namespace {

using testing::Test;
using Keys = std::vector<ULONG_PTR>;

class CompletionPort : public Test {
  protected:
    const Owned m_port = Port();
};

// In portions that fall on all sides of the steps in which memory for packets grows and shrinks.
TEST_F(CompletionPort, KeepsTheOrderOfItsPackets) {
    ULONG_PTR posted = 0;
    ULONG_PTR taken = 0;
    for (ULONG_PTR portion : {1, 255, 256, 257, 3000, 2}) {
        for (ULONG_PTR i = 0; i < portion; ++i)
            ASSERT_EQ(Post(m_port, ++posted), 0u);
        for (; taken < posted - portion / 3; ++taken)
            ASSERT_EQ(Key(m_port, 0), taken + 1);
    }
    Keys rest(posted - taken);
    std::iota(rest.begin(), rest.end(), taken + 1);
    EXPECT_EQ(Drain(m_port), rest);
}

TEST_F(CompletionPort, TellsOfNoPacketAfterTheTime) {
    OVERLAPPED before{};
    for (const DWORD ms : {0u, 30u}) {
        Packet packet{7, 8, &before};
        const ULONGLONG start = GetTickCount64();
        EXPECT_EQ(Get(m_port, packet, ms), DWORD{WAIT_TIMEOUT});
        constexpr ULONGLONG TickStep = 16;
        EXPECT_GE(GetTickCount64() - start + TickStep, ms);
        EXPECT_EQ(packet, (Packet{7, 8, nullptr}));
    }
}

TEST_F(CompletionPort, HandsOutSeveralPacketsAtOnce) {
    OVERLAPPED overlapped{};
    for (ULONG_PTR key = 1; key <= 5; ++key)
        PostQueuedCompletionStatus(m_port, static_cast<DWORD>(10 * key), key, &overlapped);
    std::array<OVERLAPPED_ENTRY, 3> entries{};
    ULONG removed = 0;
    ASSERT_TRUE(GetQueuedCompletionStatusEx(m_port, entries.data(), 3, &removed, INFINITE, FALSE));
    ASSERT_EQ(removed, 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(entries[i].lpCompletionKey, i + 1);
        EXPECT_EQ(entries[i].dwNumberOfBytesTransferred, 10 * (i + 1));
        EXPECT_EQ(entries[i].lpOverlapped, &overlapped);
        EXPECT_EQ(entries[i].Internal, 0u);
    }
    ASSERT_TRUE(GetQueuedCompletionStatusEx(m_port, entries.data(), 3, &removed, INFINITE, TRUE));
    EXPECT_EQ(removed, 2u);
    EXPECT_EQ(CodeOf(GetQueuedCompletionStatusEx(m_port, entries.data(), 3, &removed, 1, FALSE)),
              DWORD{WAIT_TIMEOUT});
}

TEST_F(CompletionPort, IsFoundByEachOfItsHandles) {
    Owned copy = Duplicate(m_port);
    EXPECT_EQ(Post(copy, 1), 0u);
    EXPECT_EQ(Post(m_port, 2), 0u);
    EXPECT_EQ(Key(m_port), 1u);
    EXPECT_EQ(Key(copy), 2u);
    const HANDLE closed = copy;
    copy.Close();
    EXPECT_EQ(Post(closed, 3), ERROR_INVALID_HANDLE);
    Packet packet;
    EXPECT_EQ(Get(closed, packet, 0), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Get(m_port, packet, 0), DWORD{WAIT_TIMEOUT});
}

TEST_F(CompletionPort, IsLeftAloneByWhatIsNoPort) {
    const Owned event = ManualEvent();
    for (const HANDLE handle :
         {HANDLE(event), HANDLE(), INVALID_HANDLE_VALUE, HANDLE(ULONG_PTR{0x1234'5678})}) {
        OVERLAPPED before{};
        Packet packet{7, 8, &before};
        EXPECT_EQ(Post(handle, 1), ERROR_INVALID_HANDLE);
        EXPECT_EQ(Get(handle, packet, INFINITE), ERROR_INVALID_HANDLE);
        EXPECT_EQ(packet, (Packet{7, 8, nullptr}));
        OVERLAPPED_ENTRY entry;
        ULONG removed;
        EXPECT_EQ(CodeOf(GetQueuedCompletionStatusEx(handle, &entry, 1, &removed, INFINITE, FALSE)),
                  ERROR_INVALID_HANDLE);
    }
}

TEST_F(CompletionPort, NeedsTheRightToChangeIt) {
    HANDLE weak = nullptr;
    ASSERT_TRUE(
        DuplicateHandle(GetCurrentProcess(), m_port, GetCurrentProcess(), &weak, SYNCHRONIZE, FALSE, 0));
    const Owned owned(weak);
    EXPECT_EQ(Post(weak, 1), ERROR_ACCESS_DENIED);
    Packet packet;
    EXPECT_EQ(Get(weak, packet, 0), ERROR_ACCESS_DENIED);
}

TEST_F(CompletionPort, IsMadeWithAFileOrAlone) {
    EXPECT_EQ(CodeOf(CreateIoCompletionPort(INVALID_HANDLE_VALUE, m_port, 0, 0)), ERROR_INVALID_PARAMETER);
    const Owned event = ManualEvent();
    EXPECT_EQ(CodeOf(CreateIoCompletionPort(nullptr, m_port, 0, 0)), ERROR_INVALID_HANDLE);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
