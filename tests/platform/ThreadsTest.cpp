#include "TQLib/platform/Win32.h"
#include "WaitObjects.h"

#include <atomic>

namespace Quellan::Corvel::Test {
namespace {

DWORD ExitCodeOf(HANDLE thread) {
    DWORD code = 0;
    EXPECT_EQ(CodeOf(GetExitCodeThread(thread, &code)), 0u);
    return code;
}

DWORD ReturnParameter(void* parameter) {
    return *static_cast<const DWORD*>(parameter);
}

TEST(Threads, WaitForResumeWhenTheyAreCreatedSuspended) {
    DWORD parameter = 7;
    const Owned thread(CreateThread(nullptr, 0, &ReturnParameter, &parameter, CREATE_SUSPENDED, nullptr));
    EXPECT_EQ(SuspendThread(thread), 1u);
    EXPECT_EQ(ResumeThread(thread), 2u);
    parameter = 8;
    EXPECT_EQ(ExitCodeOf(thread), DWORD{STILL_ACTIVE});
    EXPECT_EQ(ResumeThread(thread), 1u);
    EXPECT_EQ(Await(thread), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCodeOf(thread), 8u);
}

std::atomic<int> g_destroyed{0};
struct CountsItsEnd {
    int value = 0;
    ~CountsItsEnd() { ++g_destroyed; }
};
thread_local CountsItsEnd t_counted;

DWORD ExitDeepInside(void* depth) {
    t_counted.value = 1;
    const std::function<void(int)> exitBelow = [&](int left) {
        if (left == 0) ExitThread(99);
        exitBelow(left - 1);
    };
    exitBelow(*static_cast<int*>(depth));
    return 0;
}

TEST(Threads, AreSignalledOnceTheirThreadLocalsAreGone) {
    g_destroyed = 0;
    int depth = 3;
    const Owned thread(CreateThread(nullptr, 0, &ExitDeepInside, &depth, 0, nullptr));
    EXPECT_EQ(Await(thread), WAIT_OBJECT_0);
    EXPECT_EQ(ExitCodeOf(thread), 99u);
    EXPECT_EQ(g_destroyed, 1);
}

TEST(Threads, RememberTheirPriority) {
    const Worker thread([] {
        EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
        for (const int priority : {THREAD_PRIORITY_LOWEST, THREAD_PRIORITY_BELOW_NORMAL, THREAD_PRIORITY_IDLE,
                                   THREAD_PRIORITY_NORMAL}) {
            EXPECT_EQ(CodeOf(SetThreadPriority(GetCurrentThread(), priority)), 0u) << priority;
            EXPECT_EQ(GetThreadPriority(GetCurrentThread()), priority);
        }
        return CodeOf(SetThreadPriority(GetCurrentThread(), 7));
    });
    EXPECT_EQ(thread.Result(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(Threads, BeginWithNormalPriorityWhateverTheirMakerHas) {
    const Worker maker([] {
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST);
        return Worker([] { return static_cast<DWORD>(GetThreadPriority(GetCurrentThread())); }).Result();
    });
    EXPECT_EQ(maker.Result(), DWORD{THREAD_PRIORITY_NORMAL});
}

TEST(Threads, AreOpenedByTheirId) {
    const Owned end = ManualEvent();
    const Worker thread([&] { return Await(end); });
    const Owned opened(OpenThread(SYNCHRONIZE, FALSE, thread.Id()));
    EXPECT_EQ(Poll(opened), DWORD{WAIT_TIMEOUT});
    EXPECT_EQ(CodeOf(SetThreadPriority(opened, THREAD_PRIORITY_NORMAL)), DWORD{ERROR_ACCESS_DENIED});
    SetEvent(end);
    EXPECT_EQ(Await(opened), WAIT_OBJECT_0);
    EXPECT_EQ(CodeOf(OpenThread(SYNCHRONIZE, FALSE, 0x7FFFFFF0)), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(Threads, AreWaitedForThroughACopyOfTheirPseudoHandle) {
    Owned copy;
    {
        const Worker thread([&] {
            copy = Duplicate(GetCurrentThread());
            EXPECT_EQ(Poll(GetCurrentThread()), DWORD{WAIT_TIMEOUT});
            return GetThreadId(copy);
        });
        EXPECT_EQ(thread.Result(), thread.Id());
    }
    EXPECT_EQ(Poll(copy), WAIT_OBJECT_0);
}

TEST(Threads, RefuseHandlesOfOtherObjects) {
    const Owned event = ManualEvent();
    DWORD code;
    EXPECT_EQ(CodeOf(GetExitCodeThread(event, &code)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(GetThreadId(nullptr)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ResumeThread(GetCurrentThread()), 0u) << "one that runs has no suspend count";
    EXPECT_EQ(ResumeThread(event), 0xFFFFFFFF);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
}

TEST(Version, FillsNoRecordOfAnotherSize) {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);
    version.wProductType = 77;
    EXPECT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
    EXPECT_EQ(version.wProductType, 77);
    version.dwOSVersionInfoSize = sizeof version - 1;
    EXPECT_FALSE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
}

TEST(Handles, AreClosedByDuplicationOnDemand) {
    Owned event = ManualEvent(true);
    const HANDLE process = GetCurrentProcess();
    HANDLE copy = nullptr;
    ASSERT_TRUE(DuplicateHandle(process, event, process, &copy, 0, FALSE,
                                DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE));
    const Owned moved(copy);
    EXPECT_EQ(Poll(moved), WAIT_OBJECT_0);
    const HANDLE closed = event;
    event.Forget();
    // The new handle may have got the old one's value.
    if (moved != closed) {
        EXPECT_EQ(CodeOf(CloseHandle(closed)), DWORD{ERROR_INVALID_HANDLE});
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
