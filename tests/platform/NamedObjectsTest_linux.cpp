// What only the layer promises: where names live, what survives a kill, whom it trusts.
#include "SleepingThreads_linux.h"
#include "TQLib/platform/Win32.h"
#include "WaitObjects.h"
#include "support/FailCall.h"
#include "support/Role.h"

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <grp.h>
#include <memory>
#include <random>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

namespace fs = std::filesystem;

fs::path FolderOf(const char* nameSpace) {
    return fs::path(std::getenv("TQLIB_ROOT")) / "run" / (std::string("objects-") + nameSpace);
}

std::vector<fs::path> ObjectFiles(const char* nameSpace = "local") {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(FolderOf(nameSpace)))
        if (entry.path().filename() != ".door") files.push_back(entry.path());
    return files;
}

class NameSpace : public testing::Test {
  protected:
    // Something has to be made before the folders exist.
    NameSpace()
        : m_local(ManualEvent(false, L"NameSpace")), m_global(ManualEvent(false, L"Global\\NameSpace")) {}

    Owned m_local;
    Owned m_global;
};

TEST_F(NameSpace, IsOfTheUserOrOfTheMachine) {
    SetEvent(m_global);
    EXPECT_EQ(Poll(m_local), WAIT_TIMEOUT);
    EXPECT_EQ(ObjectFiles("local").size(), 1u);
    EXPECT_EQ(ObjectFiles("global").size(), 1u);
    struct stat info;
    ASSERT_EQ(stat(ObjectFiles("local").front().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(info.st_size, 4096);
    ASSERT_EQ(stat(ObjectFiles("global").front().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

constexpr std::streamoff LockOffset = 16, NameOffset = 24, ValueOffset = 4072;

// A file's words, by their place.
void WriteWord(const fs::path& path, std::streamoff offset, std::uint32_t word) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(offset).write(reinterpret_cast<const char*>(&word), sizeof word);
}

Owned EventForAll(const wchar_t* name) {
    SECURITY_DESCRIPTOR everybody{
        SECURITY_DESCRIPTOR_REVISION, 0, SE_DACL_PRESENT, nullptr, nullptr, nullptr, nullptr};
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &everybody, FALSE};
    return Owned(CreateEventW(&attributes, FALSE, FALSE, name));
}

TEST_F(NameSpace, OutlivesANeighbourThatLocksOrCutsOffItsMemory) {
    m_local.Close();
    const Owned event = EventForAll(L"open");
    const fs::path file = ObjectFiles().front();
    struct stat info;
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);
    WriteWord(file, LockOffset, 1);   // held by a process that lives
    WriteWord(file, ValueOffset, 1);  // set
    {
        const Owned mine = AutoEvent(true);
        const Worker set([&] { return CodeOf(SetEvent(event)); });
        const Worker waitAny([&] { return WaitCode(Await(event)); });
        const Worker waitAll([&] { return WaitCode(WaitAll({event, mine}, Patience)); });
        for (const Worker* worker : {&set, &waitAny, &waitAll})
            EXPECT_EQ(worker->Result(), ERROR_BUSY);
    }
    WriteWord(file, LockOffset, 0);
    EXPECT_EQ(Poll(event), WAIT_OBJECT_0);
    WriteWord(file, LockOffset, 1);
    {
        const Worker set([&] { return CodeOf(SetEvent(event)); });
        AwaitSleep(set.Id());
        fs::resize_file(file, 0);
        EXPECT_EQ(set.Result(), ERROR_SWAPERROR);
    }
    EXPECT_EQ(CodeOf(SetEvent(event)), ERROR_SWAPERROR);
    EXPECT_EQ(WaitCode(Await(event)), ERROR_SWAPERROR);
}

constexpr uid_t Stranger = 65'533;

// Another user of the machine, who opens or makes an event, or keeps the one that he has made.
const Role g_stranger("stranger", [](const RoleArguments& arguments) -> int {
    if (setgroups(0, nullptr) != 0 || setgid(Stranger) != 0 || setuid(Stranger) != 0) return 126;
    const std::wstring name(arguments[1].begin(), arguments[1].end());
    const Owned event(arguments[0] == "open" ? OpenEventW(EVENT_ALL_ACCESS, FALSE, name.c_str())
                                             : CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    const DWORD code = CodeOf(HANDLE(event));
    if (arguments[0] == "keep") {
        std::puts("made");
        std::fflush(stdout);
        std::getchar();
    }
    return static_cast<int>(code);
});

// On a system of its own, where nobody has used a name yet.
const Role g_neighbours("neighbours", [](const RoleArguments&) -> int {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/run", "tmpfs", 0, "mode=755") != 0)
        return 77;
    for (const char* variable : {"TQLIB_ROOT", "XDG_RUNTIME_DIR", "XDG_STATE_HOME", "HOME"})
        unsetenv(variable);
    const auto codeOf = [](const char* call, const char* name) {
        return static_cast<DWORD>(RoleProcess("stranger", {call, name}).ExitCode());
    };
    // Nobody can be where root's folder is going to be.
    if (codeOf("make", "Global\\early") != ERROR_ACCESS_DENIED) return 1;
    const Owned own = ManualEvent(false, L"Global\\own"), all = EventForAll(L"Global\\all");
    if (!own || !all) return 2;
    if (codeOf("open", "Global\\own") != ERROR_ACCESS_DENIED) return 3;
    if (codeOf("open", "Global\\all") != 0) return 4;
    {
        // Root outlives what the maker of an object does to it, though nobody else may.
        RoleProcess maker("stranger", {"keep", "Global\\theirs"}, ChildProcess::Files::Piped);
        maker.ReadTo("made");
        const Owned theirs(OpenEventW(EVENT_ALL_ACCESS, FALSE, L"Global\\theirs"));
        for (const auto& entry : fs::directory_iterator("/run/tqlib/objects-global")) {
            struct stat info;
            if (stat(entry.path().c_str(), &info) == 0 && info.st_uid == Stranger)
                fs::resize_file(entry.path(), 0);
        }
        if (CodeOf(SetEvent(theirs)) != ERROR_SWAPERROR) return 5;
    }
    // A user has what the system made for him alone, and nothing where it made nothing.
    if (codeOf("make", "mine") != ERROR_PATH_NOT_FOUND) return 6;
    const char* const runtime = "/run/user/65533";
    fs::create_directories(runtime);
    const auto ownedBy = [](const char* folder, uid_t owner, mode_t mode) {
        return chown(folder, owner, owner) == 0 && chmod(folder, mode) == 0;
    };
    if (!ownedBy(runtime, 0, 0755) || codeOf("make", "mine") != ERROR_PATH_NOT_FOUND) return 7;
    if (!ownedBy(runtime, Stranger, 0770) || codeOf("make", "mine") != ERROR_PATH_NOT_FOUND) return 8;
    if (!ownedBy(runtime, Stranger, 0700) || codeOf("make", "mine") != 0) return 9;
    // Nor is a folder for all believed that somebody else owns or may write.
    if (!ownedBy("/run/tqlib/objects-global", Stranger, 01777)) return 10;
    if (codeOf("open", "Global\\all") != ERROR_ACCESS_DENIED) return 11;
    if (!ownedBy("/run/tqlib/objects-global", 0, 01777) || !ownedBy("/run/tqlib", 0, 0757)) return 12;
    return codeOf("open", "Global\\all") == ERROR_ACCESS_DENIED ? 0 : 13;
});

TEST(Neighbours, HaveTheirOwnPlaces) {
    const int code = geteuid() == 0 ? RoleProcess("neighbours").ExitCode() : 77;
    if (code == 77) GTEST_SKIP() << "only root may mount a file system and be somebody else";
    EXPECT_EQ(code, 0);
}

TEST_F(NameSpace, IsNotTrustedWhereOthersMayHaveMadeIt) {
    m_local.Close();
    const fs::path folder = FolderOf("local"), aside = folder.native() + ".aside";
    const auto make = [] { return CodeOf(ManualEvent(false, L"NameSpace")); };
    for (const fs::perms others : {fs::perms::others_write, fs::perms::group_write}) {
        fs::permissions(folder, others, fs::perm_options::add);
        EXPECT_EQ(make(), ERROR_ACCESS_DENIED);
        fs::permissions(folder, others, fs::perm_options::remove);
    }
    fs::rename(folder, aside);
    fs::create_directory_symlink(aside, folder);
    EXPECT_EQ(make(), ERROR_ACCESS_DENIED);
    fs::remove(folder);
    fs::rename(aside, folder);
    if (geteuid() == 0) {
        ASSERT_EQ(chown(folder.c_str(), Stranger, Stranger), 0);
        EXPECT_EQ(make(), ERROR_ACCESS_DENIED);
        ASSERT_EQ(chown(folder.c_str(), 0, 0), 0);
    }
    EXPECT_EQ(make(), 0u);
}

TEST_F(NameSpace, TakesNoLinkForAnObject) {
    const fs::path file = ObjectFiles().front();
    m_local.Close();
    fs::create_symlink("/dev/null", file);
    EXPECT_EQ(CodeOf(CreateEventW(nullptr, TRUE, FALSE, L"NameSpace")), ERROR_ACCESS_DENIED);
    fs::remove(file);
}

TEST_F(NameSpace, RefusesLongNamesAndInheritance) {
    EXPECT_EQ(CodeOf(ManualEvent(false, std::wstring(260, L'\x1F600').c_str())), 0u);
    EXPECT_EQ(CodeOf(ManualEvent(false, std::wstring(261, L'a').c_str())), ERROR_FILENAME_EXCED_RANGE);
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    EXPECT_EQ(CodeOf(CreateMutexW(&inherited, FALSE, L"other")), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(CodeOf(OpenEventW(SYNCHRONIZE, TRUE, L"NameSpace")), ERROR_NOT_SUPPORTED);
}

// The first thing a process does with a name clears away what killed processes have left.
const Role g_toucher("touch-name", [](const RoleArguments&) -> int {
    return CodeOf(Owned(CreateEventW(nullptr, TRUE, FALSE, L"touched"))) == 0 ? 0 : 1;
});

const Role g_leaver("leave-names", [](const RoleArguments&) -> int {
    Owned events[] = {ManualEvent(false, L"left.1"), ManualEvent(false, L"left.2")};
    SetEvent(Owned(OpenEventW(EVENT_ALL_ACCESS, FALSE, L"NameSpace")));
    Sleep(INFINITE);
    return 1;
});

TEST_F(NameSpace, IsClearedOfWhatWasLeftBehind) {
    RoleProcess leaver("leave-names");
    ASSERT_EQ(Await(m_local), WAIT_OBJECT_0);
    leaver.Kill();
    EXPECT_EQ(ObjectFiles().size(), 3u);
    EXPECT_EQ(RoleProcess("touch-name").ExitCode(), 0);
    EXPECT_EQ(ObjectFiles().size(), 1u);
}

// Whatever somebody writes into an object's memory, the calls come back with something sensible.
TEST_F(NameSpace, StandsNonsenseInItsFiles) {
    std::mt19937 random(1);
    constexpr std::size_t Fields = NameOffset, ValueBytes = 4;
    for (int round = 0; round < 25; ++round) {
        const Owned objects[] = {AutoEvent(false, L"nonsense.event"), Mutex(false, L"nonsense.mutex"),
                                 Semaphore(0, 5, L"nonsense.semaphore")};
        for (const fs::path& path : ObjectFiles()) {
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            for (std::size_t i = 0; i < Fields + ValueBytes; ++i) {
                // What is no object any more at all is told at once: so only now and then.
                const std::size_t first = round % 5 == 0 ? 0 : 4;
                const std::size_t at = first + random() % (Fields + ValueBytes - first);
                file.seekp(at < Fields ? static_cast<std::streamoff>(at) : ValueOffset + at % ValueBytes);
                file.put(static_cast<char>(random()));
            }
        }
        LONG previous = 0;
        for (const HANDLE object : objects) {
            const DWORD status = WaitForSingleObject(object, round % 2);
            EXPECT_TRUE(status == WAIT_OBJECT_0 || status == WAIT_ABANDONED_0 || status == WAIT_TIMEOUT ||
                        WaitCode(status) == ERROR_SWAPERROR)
                << status;
        }
        WaitAll({objects[0], objects[1], objects[2]}, round % 2);
        SetEvent(objects[0]);
        ReleaseMutex(objects[1]);
        ReleaseSemaphore(objects[2], 1, &previous);
        EXPECT_GE(previous, 0);
        // Another process meets the same.
        if (round % 10 == 0) {
            EXPECT_EQ(RoleProcess("touch-name").ExitCode(), 0);
        }
    }
}

TEST_F(NameSpace, RefusesFilesThatAreNotOfTheObject) {
    const fs::path file = ObjectFiles().front();
    RoleProcess leaver("leave-names");
    ASSERT_EQ(Await(m_local), WAIT_OBJECT_0);
    const auto open = [] { return CodeOf(Owned(OpenEventW(SYNCHRONIZE, FALSE, L"left.1"))); };
    const auto eachOther = [&](auto change) {
        for (const fs::path& each : ObjectFiles())
            if (each != file) change(each);
    };
    const struct {
        std::streamoff offset;
        std::uint32_t wrong, right;
        DWORD code;
    } words[] = {{0, 0, 0x324F5154, ERROR_INVALID_DATA},                     // the mark
                 {4, 2, 1, ERROR_INVALID_HANDLE},                            // the kind
                 {12, 0, 1, ERROR_INVALID_DATA},                             // the maximum
                 {NameOffset, 0x7466656D, 0x7466656C, ERROR_INVALID_DATA}};  // the name
    for (const auto& [offset, wrong, right, code] : words) {
        eachOther([&](const fs::path& each) { WriteWord(each, offset, wrong); });
        EXPECT_EQ(open(), code) << offset;
        eachOther([&](const fs::path& each) { WriteWord(each, offset, right); });
    }
    EXPECT_EQ(open(), 0u);
    eachOther([](const fs::path& each) { fs::resize_file(each, 100); });
    EXPECT_EQ(open(), ERROR_INVALID_DATA);
}

const Role g_closer("close-owned", [](const RoleArguments&) -> int {
    Owned owned(OpenMutexW(SYNCHRONIZE, FALSE, L"closed.mutex"));
    Await(owned);
    owned.Close();
    SetEvent(Owned(OpenEventW(EVENT_ALL_ACCESS, FALSE, L"NameSpace")));
    Sleep(INFINITE);
    return 1;
});

TEST_F(NameSpace, HearsAtOnceOfAnOwnerThatClosesItsHandle) {
    const Owned mutex = Mutex(false, L"closed.mutex");
    RoleProcess process("close-owned");
    ASSERT_EQ(Await(m_local), WAIT_OBJECT_0);
    EXPECT_EQ(Poll(mutex), WAIT_ABANDONED_0);
}

// Takes the mutex again and again, by a wait of the form that is asked for, and counts each time.
const Role g_user("use-mutex", [](const RoleArguments& arguments) -> int {
    const Owned mutex(OpenMutexW(SYNCHRONIZE, FALSE, L"fought.mutex"));
    const Owned turns(OpenSemaphoreW(SEMAPHORE_ALL_ACCESS, FALSE, L"fought.turns"));
    const Owned never = AutoEvent(), named = ManualEvent(true, L"fought.set");
    for (;;) {
        const DWORD status = arguments.at(0) == "any"   ? WaitAny({never, mutex}, INFINITE) - 1
                             : arguments.at(0) == "all" ? WaitAll({named, mutex}, INFINITE)
                                                        : WaitForSingleObject(mutex, INFINITE);
        if (status != WAIT_OBJECT_0 && status != WAIT_ABANDONED_0) return 1;
        ReleaseSemaphore(turns, 1, nullptr);
        if (!ReleaseMutex(mutex)) return 2;
    }
});

// No wait has an end of its own, and nobody looks a second time: one wake-up that dies with whom it was for
// leaves the others asleep.
TEST_F(NameSpace, PassesAMutexOnWhoeverIsKilled) {
    const Owned mutex = Mutex(false, L"fought.mutex"), turns = Semaphore(0, INT_MAX, L"fought.turns");
    const char* const forms[] = {"single", "any", "all", "single"};
    std::vector<std::unique_ptr<RoleProcess>> users;
    for (const char* form : forms)
        users.push_back(std::make_unique<RoleProcess>("use-mutex", RoleArguments{form}));
    std::mt19937 random(7);
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(Await(turns), WAIT_OBJECT_0) << round;
        while (Poll(turns) == WAIT_OBJECT_0) {
        }
        const std::size_t kept = random() % users.size();
        for (std::size_t i = 0; i < users.size(); ++i)
            if (i != kept) kill(static_cast<pid_t>(users[i]->Id()), SIGKILL);
        for (std::size_t i = 0; i < users.size(); ++i) {
            if (i == kept) continue;
            users[i]->Kill();
            while (Poll(turns) == WAIT_OBJECT_0) {
            }
            ASSERT_EQ(Await(turns), WAIT_OBJECT_0) << round;
            users[i] = std::make_unique<RoleProcess>("use-mutex", RoleArguments{forms[i]});
        }
    }
}

std::uint64_t SleepsOf(DWORD thread) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("voluntary_ctxt_switches:")) return std::stoull(line.substr(line.find(':') + 1));
    return 0;
}

// What would wake the waiters now and then does so before the time of this thread's own wait is over.
TEST_F(NameSpace, LetsWaitersSleep) {
    const Owned mutex = Mutex(true, L"slept.mutex"), named = AutoEvent(false, L"slept.event"),
                mine = AutoEvent();
    const Worker single([&] { return Await(mutex); }), any([&] { return WaitAny({mine, named}, Patience); });
    std::vector<std::uint64_t> before;
    for (const Worker* worker : {&single, &any}) {
        AwaitSleep(worker->Id());
        before.push_back(SleepsOf(worker->Id()));
    }
    EXPECT_EQ(WaitAny({AutoEvent(), m_local}, 1'200), WAIT_TIMEOUT);
    EXPECT_LE(SleepsOf(single.Id()), before[0] + 1);
    EXPECT_LE(SleepsOf(any.Id()), before[1] + 1);
    ReleaseMutex(mutex);
    SetEvent(named);
    EXPECT_EQ(single.Result(), WAIT_OBJECT_0);
    EXPECT_EQ(any.Result(), WAIT_OBJECT_0 + 1);
}

// As on kernels that cannot wait on several words at once.
TEST_F(NameSpace, EndsMixedWaitsOnOlderKernelsToo) {
    ExchangeMixedSignals(L"older.named", 500, [] {
        return FailCall("futex_waitv", ERROR_CALL_NOT_IMPLEMENTED, FailCall::EveryCall);
    });
}

}  // namespace
}  // namespace Quellan::Corvel::Test
