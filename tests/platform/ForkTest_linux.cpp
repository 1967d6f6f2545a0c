// What the child of a fork has, and what it leaves to its parent.
#include "Forked_linux.h"
#include "RegistryTest.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/linux/base/Durable.h"
#include "WaitObjects.h"
#include "support/Role.h"

#include <algorithm>
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
    const Owned mutex = Mutex(true, L"forked.shared"), mine = Mutex(true), anybodys = Mutex();
    Forked child([&] {
        if (Await(mutex) != WAIT_OBJECT_0 || !ReleaseMutex(mutex)) return 1;
        if (Poll(anybodys) != WAIT_OBJECT_0 || !ReleaseMutex(anybodys)) return 3;
        if (Poll(mine) != WAIT_OBJECT_0 || !ReleaseMutex(mine)) return 4;
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

// What threads do in a loop, all with the same objects, while the process forks; the child does it once more.
// 0, or the number of what went wrong.
struct Habit {
    const char* name;
    int (*use)();
};

std::wstring NameInTemp(const wchar_t* name) {
    static const TemporaryFolder folder;
    return folder / name;
}

constexpr Habit TheRegistry{
    "the registry", [] {
        static const OwnedKey key = Make(HKEY_CURRENT_USER, L"Software\\TQLibTest\\Fork");
        const DWORD one = 1;
        wchar_t name[16];
        DWORD size = 16, type = 0;
        if (RegSetValueExW(key, L"value", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&one), sizeof one))
            return 1;
        return RegEnumValueW(key, 0, name, &size, nullptr, &type, nullptr, nullptr) == 0 ? 0 : 2;
    }};
constexpr Habit TheEventLog{
    "the event log", [] {
        static const HANDLE source = RegisterEventSourceW(nullptr, L"TQLibForkTest");
        static const HANDLE log = OpenEventLogW(nullptr, L"Application");
        DWORD count = 0;
        if (!ReportEventW(source, EVENTLOG_INFORMATION_TYPE, 0, 1, nullptr, 0, 0, nullptr, nullptr)) return 1;
        return GetNumberOfEventLogRecords(log, &count) && count > 0 ? 0 : 2;
    }};

constexpr Habit Habits[] = {
    {"objects of their own",
     [] {
         const Owned event = AutoEvent(true), named = Mutex(false, L"fork.rest");
         SetEnvironmentVariableW(L"TQ_FORK", L"1");
         VirtualFree(VirtualAlloc(nullptr, 4096, MEM_RESERVE, PAGE_NOACCESS), 0, MEM_RELEASE);
         return Poll(event) == WAIT_OBJECT_0 ? 0 : 1;
     }},
    {"an event",
     [] {
         static const Owned event = AutoEvent();
         do
             SetEvent(event);
         while (WaitForSingleObject(event, 1) != WAIT_OBJECT_0);  // somebody else has had it
         return 0;
     }},
    {"a semaphore",
     [] {
         static const Owned semaphore = Semaphore(0);
         if (!ReleaseSemaphore(semaphore, 1, nullptr)) return 1;
         return WaitForSingleObject(semaphore, 10'000) == WAIT_OBJECT_0 ? 0 : 2;
     }},
    {"a semaphore and a wait for all",
     [] {
         static const Owned both[] = {Semaphore(0), ManualEvent(true)};
         const HANDLE handles[] = {both[0], both[1]};
         if (!ReleaseSemaphore(both[0], 1, nullptr)) return 1;
         return WaitForMultipleObjects(2, handles, TRUE, 10'000) == WAIT_OBJECT_0 ? 0 : 2;
     }},
    {"a completion port",
     [] {
         static const Owned port(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
         DWORD bytes = 0;
         ULONG_PTR key = 0;
         OVERLAPPED* overlapped = nullptr;
         if (!PostQueuedCompletionStatus(port, 1, 1, nullptr)) return 1;
         return GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 10'000) ? 0 : 2;
     }},
    {"a file",
     [] {
         static const std::wstring name = NameInTemp(L"shared");
         constexpr DWORD All = FILE_SHARE_READ | FILE_SHARE_WRITE;
         const auto open = [] {
             return Owned(CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, All, nullptr, OPEN_ALWAYS,
                                      0, nullptr));
         };
         static const Owned file = open();
         while (!LockFile(file, 0, 0, 1, 0))
             if (GetLastError() != ERROR_LOCK_VIOLATION) return 1;
         DWORD count = 0;
         const bool isWritten = WriteFile(file, "x", 1, &count, nullptr) != 0;
         if (!UnlockFile(file, 0, 0, 1, 0) || !isWritten) return 2;
         return open() != INVALID_HANDLE_VALUE ? 0 : 3;
     }},
    {"the search of a folder",
     [] {
         WIN32_FIND_DATAW data;
         static const HANDLE find = FindFirstFileW(L"/usr/lib/*", &data);
         return FindNextFileW(find, &data) || GetLastError() == ERROR_NO_MORE_FILES ? 0 : 1;
     }},
    TheRegistry,
    TheEventLog,
    {"local time",
     [] {
         SYSTEMTIME time{};
         GetLocalTime(&time);
         return time.wYear > 2000 ? 0 : 1;
     }},
    {"the text of an exception",
     [] {
         try {
             throw TQSysException(ERROR_FILE_NOT_FOUND, L"Test");
         } catch (const TQCoreException& failure) {
             if (failure.ExcMsg(TQStrResDestination::Log).Length() == 0) return 1;
         }
         return 0;
     }},
    {"modules",
     [] {
         wchar_t text[200];
         return GetModuleFileNameW(GetModuleHandleW(nullptr), text, 200) > 0 ? 0 : 1;
     }},
    {"a thread",
     [] {
         const Owned thread(CreateThread(
             nullptr, 0, [](void*) -> DWORD { return 7; }, nullptr, 0, nullptr));
         DWORD code = 0;
         if (WaitForSingleObject(thread, 10'000) != WAIT_OBJECT_0) return 1;
         return GetExitCodeThread(thread, &code) && code == 7 ? 0 : 2;
     }},
};

#if defined(TQ_FAULT_POINTS)

constexpr Habit Changes[] = {TheRegistry, TheEventLog};

// Stays in the midst of a change, on one thread, and forks on another.
const Role g_changing("change-and-fork", [](const RoleArguments& arguments) -> int {
    static std::atomic<bool> isInside = false;
    Platform::Durable::TheObserver() = [](const Platform::Durable::Step& step) {
        if (step.kind != Platform::Durable::Step::Kind::Sync) return;
        isInside = true;
        isInside.notify_all();
        LiveOn();
    };
    const Worker worker([&] { return static_cast<DWORD>(Changes[std::stoi(arguments.at(0))].use()); });
    isInside.wait(false);
    const Forked child([] {
        const Owned end(OpenEventW(SYNCHRONIZE, FALSE, L"forked.end"));
        return static_cast<int>(Await(end));
    });
    SetEvent(Owned(OpenEventW(EVENT_ALL_ACCESS, FALSE, L"forked.event")));
    return LiveOn();
});

TEST(Fork, KeepsNoChangeFromOthersWhenItsParentIsKilledInTheMidst) {
    for (int i = 0; i < static_cast<int>(std::size(Changes)); ++i) {
        const Owned event = AutoEvent(false, L"forked.event"), end = ManualEvent(false, L"forked.end");
        RoleProcess owner("change-and-fork", {std::to_string(i)});
        ASSERT_EQ(Await(event), WAIT_OBJECT_0);
        owner.Kill();
        Forked next([&] {
            alarm(20);
            return Changes[i].use();
        });
        EXPECT_EQ(next.Code(), 0) << Changes[i].name;
        SetEvent(end);
    }
}

#endif

class ForkBesideThreads : public testing::TestWithParam<Habit> {};

TEST_P(ForkBesideThreads, LeavesTheChildAbleToDoTheSame) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own locks may be held";
#endif
    const auto use = GetParam().use;
    // They rest while a child does it, which might not get between them where the lock of a file is not fair.
    std::atomic<bool> goOn = true, isResting = false;
    std::atomic<int> begun = 0, failed = use();
    const auto keepUsing = [&] {
        while (goOn) {
            if (isResting) {
                Sleep(1);
                continue;
            }
            ++begun;
            if (const int code = use()) failed = code;
        }
        return DWORD{0};
    };
    {
        const Worker first(keepUsing), second(keepUsing);
        for (int i = 0; i < 100 && failed == 0; ++i) {
            const int before = begun;
            isResting = false;
            while (begun < before + 3)
                Sleep(0);
            Forked child([&] {
                alarm(20);
                return use();
            });
            isResting = true;
            const int code = child.Code();
            if (code != 0) failed = code;
        }
        goOn = false;
    }
    EXPECT_EQ(failed, 0);
}

INSTANTIATE_TEST_SUITE_P(All, ForkBesideThreads, testing::ValuesIn(Habits), [](const auto& habit) {
    std::string name = habit.param.name;
    std::ranges::replace(name, ' ', '_');
    return name;
});

}  // namespace
}  // namespace Quellan::Corvel::Test
