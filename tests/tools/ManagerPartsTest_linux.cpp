// What the service manager is made of, where memory of it, descriptors, threads or readers are missing.
#include "../../tools/tqscm/ChildEnd.h"
#include "../../tools/tqscm/Commands.h"
#include "../../tools/tqscm/Journal.h"
#include "../../tools/tqscm/Print.h"
#include "../../tools/tqscm/Worker.h"
#include "platform/PlatformTest.h"
#include "support/ReadBytes.h"
#include "support/Role.h"
#ifdef TQ_KERNEL_FAULTS
#include "support/FailKernelCall_linux.h"
#include "support/PrivateManager_linux.h"
#endif

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>
#include <sys/resource.h>
#include <sys/wait.h>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;
using tqscm::Journal;
using tqscm::JournalEntry;

namespace {

namespace fs = std::filesystem;

class TqscmJournal : public testing::Test {
  protected:
    static JournalEntry Running(DWORD failures) {
        JournalEntry entry;
        entry.status.dwCurrentState = SERVICE_RUNNING;
        entry.process = {42, std::uint64_t{1} << 40};
        entry.commandLine = "/bin/program";
        entry.arguments = {"first", "second"};
        entry.failures.count = failures;
        return entry;
    }
    // Each name with what was put last.
    static std::string Text(const Journal& journal) {
        std::string text;
        for (const auto& [name, entry] : journal.All())
            text += name + '=' + std::to_string(entry.failures.count) + ' ';
        return text;
    }
    void Write(const std::string& bytes) const { std::ofstream(path, std::ios::binary) << bytes; }

    const TemporaryFolder folder;
    const std::string path = fs::path(folder / L"journal").string();
    const Quellan::Platform::Descriptor lock{
        open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
};

// A limit of this process while it lives.
class Limit {
  public:
    Limit(decltype(RLIMIT_NOFILE) what, rlim_t value) : m_what(what) {
        getrlimit(what, &m_before);
        const rlimit limit{value, m_before.rlim_max};
        setrlimit(what, &limit);
    }
    ~Limit() { setrlimit(m_what, &m_before); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

  private:
    const decltype(RLIMIT_NOFILE) m_what;
    rlimit m_before{};
};

// To a reader that has stopped, and to none.
int PrintMuch(const RoleArguments&) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || dup2(ends[1], STDERR_FILENO) < 0) return 1;
    close(ends[1]);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    const auto readAll = [&] {
        std::string text;
        char buffer[4096];
        for (ssize_t size = 0; (size = read(ends[0], buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(size));
        return text;
    };
    const std::string line(1000, 'x');
    for (int i = 0; i < 100; ++i)
        tqscm::Print("%s", line.c_str());
    if (!readAll().starts_with("tqscm: xxx")) return 2;
    tqscm::Print("last");
    if (!readAll().ends_with(" lines were dropped\ntqscm: last\n")) return 3;
    std::signal(SIGPIPE, SIG_IGN);
    close(ends[0]);
    tqscm::Print("nobody");
    return 0;
}
const Role prints("prints", PrintMuch);

}  // namespace

TEST_F(TqscmJournal, LosesOneRecordOfADamagedByte) {
    {
        Journal journal(path);
        for (DWORD i = 1; i <= 3; ++i)
            journal.Put(std::string(1, static_cast<char>('@' + i)), Running(i));
        EXPECT_FALSE(journal.WasDamaged());
    }
    const std::string whole = ReadBytes(path);
    for (std::size_t at = 0; at < whole.size(); ++at) {
        SCOPED_TRACE(at);
        std::string damaged = whole;
        damaged[at] = static_cast<char>(~damaged[at]);
        Write(damaged);
        const Journal journal(path);
        EXPECT_TRUE(journal.WasDamaged());
        const std::string found = Text(journal);
        EXPECT_THAT(found, testing::AnyOf("A=1 B=2 C=3 ", "B=2 C=3 ", "A=1 C=3 ", "A=1 B=2 "));
        const Journal next(path);
        EXPECT_FALSE(next.WasDamaged());
        EXPECT_EQ(Text(next), found);
    }
    for (std::size_t size = 0; size < whole.size(); ++size) {
        Write(whole.substr(0, size));
        EXPECT_TRUE(std::string("A=1 B=2 C=3 ").starts_with(Text(Journal(path)))) << size;
    }
}

TEST_F(TqscmJournal, KeepsWhatHasNoRoom) {
    std::signal(SIGXFSZ, SIG_IGN);
    Journal(path).Put("A", Running(1));
    const auto size = static_cast<rlim_t>(fs::file_size(path));
    Journal journal(path);
    {
        const Limit full(RLIMIT_FSIZE, size + 10);
        journal.Put("A", Running(2));
        journal.Put("B", Running(3));
        journal.TryAgain();
        EXPECT_TRUE(journal.IsBehind());
        EXPECT_EQ(Text(journal), "A=2 B=3 ");
        const Journal another(path);
        EXPECT_FALSE(another.WasDamaged()) << "what was half written";
        EXPECT_EQ(Text(another), "A=1 ");
    }
    journal.TryAgain();
    EXPECT_FALSE(journal.IsBehind());
    EXPECT_EQ(Text(Journal(path)), "A=2 B=3 ");
}

TEST_F(TqscmJournal, ComesBackWithItsFolder) {
    fs::create_directory(path);
    const std::string file = path + "/file";
    Journal journal(file);
    journal.Put("A", Running(1));
    fs::remove_all(path);
    journal.Put("B", Running(2));
    EXPECT_TRUE(journal.IsBehind());
    fs::create_directory(path);
    journal.TryAgain();
    EXPECT_EQ(Text(Journal(file)), "A=1 B=2 ");
}

TEST_F(TqscmJournal, IsMissedUnlessTheManagerEndedInOrder) {
    EXPECT_FALSE(Journal(path, lock.Get()).WasDamaged());
    fs::remove(path);
    Journal journal(path, lock.Get());
    EXPECT_TRUE(journal.WasDamaged());
    journal.Delete();
    EXPECT_FALSE(Journal(path, lock.Get()).WasDamaged());
}

#ifdef TQ_KERNEL_FAULTS
TEST_F(TqscmJournal, IsMissedAlsoWhereThereWasNeverRoomForIt) {
    {
        const FailKernelCall full("pwrite", ENOSPC, FailKernelCall::EveryCall);
        Journal journal(path, lock.Get());
        journal.Put("A", Running(1));
        EXPECT_TRUE(journal.IsBehind());
    }
    EXPECT_TRUE(Journal(path, lock.Get()).WasDamaged());
}

TEST_F(TqscmJournal, SurvivesEachCallThatFails) {
    for (const int error : {ENOSPC, EMFILE, EIO}) {
        std::optional<Journal> journal;
        bool wasDamaged = false;
        SweepKernelCalls(
            error,
            [&] {
                Write({});
                journal.emplace(path);
                journal->Put("A", Running(1));
                journal->Put("B", Running(2));
                journal->TryAgain();
                journal.emplace(path);
                wasDamaged = journal->WasDamaged();
                journal->Put("C", Running(3));
                journal->Remove("B");
            },
            [&](unsigned) {
                journal->TryAgain();
                EXPECT_FALSE(journal->IsBehind());
                const std::string found = Text(Journal(path));
                EXPECT_TRUE(found == "A=1 C=3 " || (wasDamaged && found == "C=3 ")) << found;
            });
    }
}
#endif

TEST(TqscmWorker, WorksBesideTheLoopInOrder) {
    tqscm::EventLoop loop;
    std::string order;
    std::atomic<int> works = 0;
    {
        tqscm::Worker worker(loop);
        const auto loopThread = std::this_thread::get_id();
        for (int i = 0; i < 3; ++i)
            worker.Post(
                [&works, i, loopThread]() -> DWORD {
                    EXPECT_NE(std::this_thread::get_id(), loopThread);
                    EXPECT_EQ(works++, i);
                    if (i == 1) throw std::bad_alloc();
                    return static_cast<DWORD>(100 + i);
                },
                [&order](DWORD code) { order += std::to_string(code) + ' '; });
        EXPECT_EQ(order, "");
        while (!worker.IsIdle())
            loop.RunOnce();
        EXPECT_EQ(order, "100 8 102 ");
        for (int i = 0; i < 20; ++i)
            worker.Post([&works] { return static_cast<DWORD>(works++); }, [](DWORD) { ADD_FAILURE(); });
    }
    EXPECT_EQ(works, 23);
}

#ifdef TQ_KERNEL_FAULTS
TEST(TqscmWorker, WorksWithoutAThread) {
    tqscm::EventLoop loop;
    tqscm::Worker worker(loop);
    const FailKernelCall none("pthread_create", EAGAIN);
    DWORD code = 0;
    worker.Post([] { return DWORD{5}; }, [&code](DWORD found) { code = found; });
    EXPECT_EQ(code, 0u);
    loop.RunOnce();
    EXPECT_EQ(code, 5u);
}

TEST(TqscmClient, GivesUpAManagerThatSaysNothing) {
    const PrivateManager manager;
    const SC_HANDLE handle = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    const auto ask = [&] {
        wchar_t name[10];
        DWORD size = 10;
        return GetServiceDisplayNameW(handle, L"none", name, &size) ? 0 : GetLastError();
    };
    {
        const FailKernelCall late("recv", EAGAIN);
        EXPECT_EQ(ask(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST}) << "it still answers others";
    }
    {
        const FailKernelCall silent("recv", EAGAIN, FailKernelCall::EveryCall);
        EXPECT_EQ(ask(), DWORD{RPC_S_SERVER_UNAVAILABLE});
    }
    EXPECT_EQ(ask(), DWORD{RPC_S_SERVER_UNAVAILABLE}) << "the late answer is none to this question";
    CloseServiceHandle(handle);
}
#endif

// A child of the process may keep its connection open: what it was told last has no answer when the process ends.
TEST(TqscmCommands, EndWithAnAnswerForEachWhoWaits) {
    tqscm::EventLoop loop;
    const tqscm::Settings settings;
    std::string heard;
    tqscm::Commands commands(loop, settings,
                             [](const tqscm::Command&, DWORD) { ADD_FAILURE() << "not from the process"; });
    const auto add = [&](const char* key) {
        commands.Add(
            {.key = key, .name = key, .control = {}, .arguments = {}, .done = [&heard, key](DWORD code) {
                 heard += key + std::to_string(code) + ' ';
             }});
    };
    for (const char* const key : {"A", "A", "B"})
        add(key);
    commands.BeginLimits();
    EXPECT_EQ(commands.Tell().key, "A");
    commands.Drop("A");
    EXPECT_EQ(heard, "A1062 ") << "what it is at goes on";
    commands.End(ERROR_PROCESS_ABORTED);
    EXPECT_EQ(heard, "A1062 A1067 B1067 ");
    commands.Drop("A");
    commands.Drop("B");
    EXPECT_TRUE(commands.AreEmpty());
    EXPECT_FALSE(commands.IsBusy());
    EXPECT_EQ(heard, "A1062 A1067 B1067 ");
}

TEST(TqscmChildEnd, IsSeenWithoutADescriptor) {
    tqscm::EventLoop loop;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const Quellan::Platform::Descriptor from(ends[0]);
    Quellan::Platform::Descriptor to(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) {
        close(to.Release());
        char byte;
        _exit(read(from.Get(), &byte, 1) == 0 ? 0 : 1);
    }
    bool hasEnded = false;
    const Limit none(RLIMIT_NOFILE, 0);
    tqscm::ChildEnd::Watch(loop, pid, [&] { hasEnded = true; });
    loop.RunOnce();
    EXPECT_FALSE(hasEnded);
    to = Quellan::Platform::Descriptor();
    while (!hasEnded)
        loop.RunOnce();
    EXPECT_NE(waitpid(pid, nullptr, WNOHANG), pid) << "it was fetched";
}

TEST(TqscmPrint, WaitsForNobody) {
    RoleProcess prints("prints");
    EXPECT_EQ(prints.ExitCode(), 0);
}
