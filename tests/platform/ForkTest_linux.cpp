// What the child of a fork has, and what it leaves to its parent.
#include "Forked_linux.h"
#include "WaitObjects.h"
#include "support/Role.h"

#include <sys/syscall.h>

namespace Quellan::Corvel::Test {
namespace {

class ForkedFile : public testing::Test {
  protected:
    Owned Open(DWORD share) const {
        const HANDLE file = CreateFileW((m_folder / L"file").c_str(), GENERIC_READ | GENERIC_WRITE, share,
                                        nullptr, OPEN_ALWAYS, 0, nullptr);
        return Owned(file == INVALID_HANDLE_VALUE ? nullptr : file);
    }
    static LONGLONG PositionOf(HANDLE file) {
        LARGE_INTEGER position{};
        SetFilePointerEx(file, {}, &position, FILE_CURRENT);
        return position.QuadPart;
    }

    TemporaryFolder m_folder;
};

TEST_F(ForkedFile, HasAPositionAndLocksOfItsOwn) {
    constexpr DWORD All = FILE_SHARE_READ | FILE_SHARE_WRITE;
    const Owned file = Open(All);
    DWORD count = 0;
    ASSERT_TRUE(WriteFile(file, "abcd", 4, &count, nullptr));
    ASSERT_TRUE(LockFile(file, 0, 0, 1, 0));
    EXPECT_EQ(Forked([&] {
                  if (PositionOf(file) != 4) return 1;
                  if (!WriteFile(file, "efg", 3, &count, nullptr)) return 2;
                  if (LockFile(file, 0, 0, 1, 0) || GetLastError() != ERROR_LOCK_VIOLATION) return 3;
                  if (UnlockFile(file, 0, 0, 1, 0) || GetLastError() != ERROR_NOT_LOCKED) return 4;
                  return LockFile(file, 8, 0, 1, 0) ? 0 : 5;
              }).Code(),
              0);
    EXPECT_EQ(PositionOf(file), 4);
    EXPECT_FALSE(LockFile(Open(All), 0, 0, 1, 0));
}

TEST_F(ForkedFile, IsClosedForAllThatKeepsOthersOut) {
    Owned file = Open(0);
    ASSERT_TRUE(LockFile(file, 0, 0, 1, 0));
    const Forked child(LiveOn);
    file.Close();
    const Owned again = Open(0);
    ASSERT_NE(again, nullptr) << GetLastError();
    EXPECT_TRUE(LockFile(again, 0, 0, 1, 0));
}

// A copy of the descriptor without a fork that the layer hears of, as in a program that is being started.
TEST_F(ForkedFile, IsClosedForAllThoughACopyLivesOn) {
    Owned file = Open(0);
    ASSERT_TRUE(LockFile(file, 0, 0, 1, 0));
    const pid_t child = static_cast<pid_t>(syscall(SYS_fork));
    if (child == 0) LiveOn();
    file.Close();
    EXPECT_NE(Open(0), nullptr) << GetLastError();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

const Role g_owner("own-and-fork", [](const RoleArguments&) -> int {
    const Owned mutex(OpenMutexW(SYNCHRONIZE, FALSE, L"forked.mutex"));
    Await(mutex);
    const Owned event(OpenEventW(EVENT_ALL_ACCESS, FALSE, L"forked.event"));
    const Forked child([&] {
        // Not its own, and it does not believe so.
        if (ReleaseMutex(mutex) || Poll(mutex) != WAIT_TIMEOUT) return 1;
        const Owned end(OpenEventW(SYNCHRONIZE, FALSE, L"forked.end"));
        SetEvent(event);
        Await(end);
        return 0;
    });
    return LiveOn();
});

TEST(ForkedMutex, IsAbandonedByItsOwnerThoughAChildLives) {
    const Owned mutex = Mutex(false, L"forked.mutex"), event = AutoEvent(false, L"forked.event");
    const Owned end = ManualEvent(false, L"forked.end");
    RoleProcess owner("own-and-fork");
    ASSERT_EQ(Await(event), WAIT_OBJECT_0);
    owner.Kill();
    EXPECT_EQ(Await(mutex), WAIT_ABANDONED_0);
    SetEvent(end);
}

TEST(ForkedMutex, IsOfAnyUseToParentAndChild) {
    const Owned mutex = Mutex(true, L"forked.shared"), mine = Mutex(true);
    Forked child([&] {
        if (Await(mutex) != WAIT_OBJECT_0 || !ReleaseMutex(mutex)) return 1;
        return ReleaseMutex(mine) && Owned(OpenMutexW(SYNCHRONIZE, FALSE, L"forked.shared")) ? 0 : 2;
    });
    ReleaseMutex(mutex);
    EXPECT_EQ(child.Code(), 0);
}

// The process has the name open beside another one when it forks; then it closes it.
TEST(ForkedMutex, CanBeOpenedWhenItsMakerHasClosedIt) {
    Owned mutex = Mutex(false, L"forked.closed");
    const Forked user([&] { return LiveOn(); }), copy([&] { return LiveOn(); });
    mutex.Close();
    EXPECT_EQ(CodeOf(Owned(CreateMutexW(nullptr, FALSE, L"forked.closed"))), 0u);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
}

// Locks of the layer that other threads hold at the moment of the fork are free in the child.
TEST(Fork, FindsTheLayerAtRest) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own locks may be held";
#endif
    std::atomic<bool> goOn = true;
    const auto use = [] {
        const Owned event = AutoEvent(true), named = Mutex(false, L"fork.rest");
        SetEnvironmentVariableW(L"TQ_FORK", L"1");
        VirtualFree(VirtualAlloc(nullptr, 4096, MEM_RESERVE, PAGE_NOACCESS), 0, MEM_RELEASE);
        return Poll(event) == WAIT_OBJECT_0 ? 0 : 1;
    };
    const auto keepUsing = [&] {
        while (goOn)
            use();
        return DWORD{0};
    };
    const Worker first(keepUsing), second(keepUsing);
    for (int i = 0; i < 100; ++i) {
        Forked child([&] {
            alarm(60);
            return use();
        });
        EXPECT_EQ(child.Code(), 0);
    }
    goOn = false;
}

}  // namespace
}  // namespace Quellan::Corvel::Test
