// What only the layer promises.
#include "TQLib/platform/Win32.h"
#include "WaitObjects.h"

#include <cstdlib>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

TEST(Threads, ThatRunAreNotSuspended) {
    EXPECT_EQ(SuspendThread(GetCurrentThread()), 0xFFFFFFFF);
    EXPECT_EQ(GetLastError(), ERROR_NOT_SUPPORTED);
}

TEST(Threads, RefuseUnreasonableStacks) {
    const auto nothing = [](void*) -> DWORD { return 0; };
    EXPECT_EQ(CodeOf(CreateThread(nullptr, ~SIZE_T{0}, nothing, nullptr, 0, nullptr)),
              ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(CodeOf(CreateThread(nullptr, SIZE_T{1} << 60, nothing, nullptr, 0, nullptr)),
              ERROR_NOT_ENOUGH_MEMORY);
}

pthread_key_t g_key;
std::atomic<int> g_rounds{0};

// A destructor of pthread's kind that needs a second round still belongs to the thread.
TEST(Threads, AreSignalledAfterDestructorsThatCallForAnother) {
    ASSERT_EQ(pthread_key_create(&g_key,
                                 [](void* value) {
                                     if (++g_rounds == 1) pthread_setspecific(g_key, value);
                                 }),
              0);
    Worker thread([] {
        pthread_setspecific(g_key, &g_rounds);
        return 0u;
    });
    Await(thread.Thread());
    EXPECT_EQ(g_rounds, 2);
    pthread_key_delete(g_key);
}

TEST(Threads, StartedInAnotherWayHaveHandlesToo) {
    Owned handle;
    Owned mutex = Mutex();
    std::thread([&] {
        handle = Duplicate(GetCurrentThread());
        Await(mutex);
    }).join();
    EXPECT_EQ(Await(handle), WAIT_OBJECT_0);
    EXPECT_EQ(Poll(mutex), WAIT_ABANDONED_0);
}

TEST(Threads, EndedFromInsideWithPthreadsMeansEndAsWell) {
    Worker thread([]() -> DWORD { pthread_exit(nullptr); });
    EXPECT_EQ(thread.Result(), 0u);
}

TEST(Threads, TakeTheirPriorityFromTheSystemsNiceValues) {
    if (geteuid() != 0) GTEST_SKIP() << "needs the right to raise priorities again";
    const int normal = getpriority(PRIO_PROCESS, 0);
    Worker thread([&] {
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST);
        EXPECT_EQ(getpriority(PRIO_PROCESS, GetCurrentThreadId()), std::min(normal + 10, 19));
        Worker([&] {
            EXPECT_EQ(getpriority(PRIO_PROCESS, GetCurrentThreadId()), normal);
            return 0u;
        });
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
        EXPECT_EQ(getpriority(PRIO_PROCESS, GetCurrentThreadId()), normal);
        return 0u;
    });
}

TEST(Version, IsTheSameOnEveryMachine) {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
    EXPECT_EQ(version.dwMajorVersion, 10u);
    EXPECT_EQ(version.wProductType, VER_NT_WORKSTATION);
    EXPECT_EQ(version.wSuiteMask, VER_SUITE_TERMINAL);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
