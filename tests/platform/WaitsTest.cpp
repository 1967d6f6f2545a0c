#include "TQLib/platform/Win32.h"
#include "WaitObjects.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(Waits, TakeTheLowestSignalledObject) {
    const Owned none = AutoEvent();
    const Owned first = AutoEvent(true);
    const Owned second = AutoEvent(true);
    EXPECT_EQ(WaitAny({none, first, second}), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitAny({none, first, second}), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(WaitAny({none, first, second}), DWORD{WAIT_TIMEOUT});
}

TEST(Waits, ForSixtyFourObjectsFindTheLast) {
    std::vector<Owned> events;
    std::vector<HANDLE> handles;
    for (unsigned i = 0; i < MAXIMUM_WAIT_OBJECTS; ++i)
        handles.push_back(events.emplace_back(ManualEvent()));
    SetEvent(handles.back());
    EXPECT_EQ(WaitAny(handles), WAIT_OBJECT_0 + 63);
    EXPECT_EQ(WaitAll(handles), DWORD{WAIT_TIMEOUT});
    for (const HANDLE handle : handles)
        SetEvent(handle);
    EXPECT_EQ(WaitAll(handles), WAIT_OBJECT_0);
}

TEST(Waits, ForAllTakeNothingBeforeAllAreSignalled) {
    const Owned event = AutoEvent(true);
    const Owned semaphore = Semaphore(1);
    const Owned missing = AutoEvent();
    EXPECT_EQ(WaitAll({event, semaphore, missing}), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(WaitAll({event, semaphore, missing}, 1), DWORD{WAIT_TIMEOUT});
    SetEvent(missing);
    EXPECT_EQ(WaitAll({event, semaphore, missing}), WAIT_OBJECT_0);
    for (const HANDLE taken : {HANDLE(event), HANDLE(semaphore), HANDLE(missing)})
        EXPECT_EQ(Poll(taken), DWORD{WAIT_TIMEOUT});
}

TEST(Waits, RefuseWrongCountsAndHandles) {
    const Owned event = ManualEvent(true);
    const std::vector<HANDLE> handles(MAXIMUM_WAIT_OBJECTS + 1, event);
    EXPECT_EQ(WaitCode(WaitAny(handles)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(WaitCode(WaitAny({})), DWORD{ERROR_INVALID_PARAMETER});
    if (!OnWine()) {  // which waits for it
        EXPECT_EQ(WaitCode(WaitAll({event, event})), DWORD{ERROR_INVALID_PARAMETER});
    }
    HANDLE closed = ManualEvent();
    for (const HANDLE invalid : {HANDLE(nullptr), closed}) {
        EXPECT_EQ(WaitCode(Poll(invalid)), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_EQ(WaitCode(WaitAny({event, invalid})), DWORD{ERROR_INVALID_HANDLE});
    }
}

TEST(Waits, EndNoSoonerThanTheirTime) {
    const Owned never = AutoEvent();
    const Owned neither = AutoEvent();
    constexpr ULONGLONG TickMs = 16;  // what the tick count may lag behind
    for (const DWORD ms : {1u, 40u}) {
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(WaitForSingleObject(never, ms), DWORD{WAIT_TIMEOUT});
        EXPECT_EQ(WaitAny({never, neither}, ms), DWORD{WAIT_TIMEOUT});
        EXPECT_EQ(WaitAll({never, neither}, ms), DWORD{WAIT_TIMEOUT});
        EXPECT_GE(GetTickCount64() - begin + TickMs, 3 * ms);
    }
}

TEST(Mutexes, AreTakenAgainByTheirOwner) {
    const Owned mutex = Mutex(true);
    EXPECT_EQ(Poll(mutex), WAIT_OBJECT_0);
    EXPECT_EQ(WaitAny({mutex}), WAIT_OBJECT_0);
    const auto pollElsewhere = [&] { return Worker([&] { return Poll(mutex); }).Result(); };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pollElsewhere(), DWORD{WAIT_TIMEOUT}) << i;
        EXPECT_EQ(CodeOf(ReleaseMutex(mutex)), 0u) << i;
    }
    EXPECT_EQ(CodeOf(ReleaseMutex(mutex)), DWORD{ERROR_NOT_OWNER});
    EXPECT_EQ(pollElsewhere(), WAIT_OBJECT_0);
}

TEST(Semaphores, CountUpToTheirMaximum) {
    const Owned semaphore = Semaphore(1, 3);
    LONG previous = -1;
    EXPECT_EQ(CodeOf(ReleaseSemaphore(semaphore, 3, &previous)), DWORD{ERROR_TOO_MANY_POSTS});
    EXPECT_EQ(CodeOf(ReleaseSemaphore(semaphore, 2, &previous)), 0u);
    EXPECT_EQ(previous, 1);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Poll(semaphore), WAIT_OBJECT_0) << i;
    EXPECT_EQ(Poll(semaphore), DWORD{WAIT_TIMEOUT});
}

TEST(Semaphores, RefuseCountsThatMakeNoSense) {
    EXPECT_EQ(CodeOf(CreateSemaphoreW(nullptr, 2, 1, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(CreateSemaphoreW(nullptr, -1, 1, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(CreateSemaphoreW(nullptr, 0, 0, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    if (OnWine()) return;  // accepts a count of 0, and calls others too many
    const Owned semaphore = Semaphore(1);
    EXPECT_EQ(CodeOf(ReleaseSemaphore(semaphore, 0, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(ReleaseSemaphore(semaphore, -1, nullptr)), DWORD{ERROR_INVALID_PARAMETER});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
