#include "LogFiles.h"
#include "TQLib/files/TQFile.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "support/RecordingSink.h"
#include "support/Role.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

// Writes records until the file may not grow, then allows it and writes one more. Answers with the number of
// records that the log counts as lost.
const Role g_limited("limited", [](const RoleArguments& arguments) {
    const RecordingSink events;
    const TQLogPtr log = Open(arguments.at(0));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 1000;
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 20; ++i)
        log->AddMsg(L"a record of some length, of which a part fits", TQLogLevel::Trace);
    if (log->Size() >= 1000 || events.Entries().size() != 1) return 0;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_FSIZE, &limit);
    log->AddMsg(L"last", TQLogLevel::Trace);
    return static_cast<int>(log->Lost());
});

TEST(LogsOnLinux, TakeBackWhatDidNotFitAndTellOfIt) {
    const LogFolder folder;
    const int lost = RoleProcess("limited", {(folder / "App.tlg").string()}).ExitCode();
    ASSERT_GT(lost, 0);
    const std::vector<std::string> lines = LinesOf(ReadBytes(folder / "App.tlg"));
    const std::size_t written = static_cast<std::size_t>(20 - lost);
    ASSERT_EQ(lines.size(), 2 * (written + 2));
    for (std::size_t i = 0; i < written; ++i)
        EXPECT_EQ(lines[2 * i + 1], "    a record of some length, of which a part fits");
    EXPECT_EQ(lines[2 * written + 1].find("    " + std::to_string(lost) + " records were lost (error "), 0u)
        << lines[2 * written + 1];
    EXPECT_EQ(lines.back(), "    last");
}

// Who wrote the log's records; each tells it in its head, too.
std::vector<std::string> WritersIn(const fs::path& path) {
    std::vector<std::string> writers;
    const std::vector<std::string> lines = LinesOf(ReadBytes(path));
    EXPECT_EQ(lines.size() % 2, 0u);
    for (std::size_t i = 0; i + 1 < lines.size(); i += 2) {
        if (lines[i + 1].find(" lost (error ") != std::string::npos) continue;
        EXPECT_EQ(lines[i + 1].find("    by "), 0u) << i;
        writers.push_back(lines[i + 1].substr(7));
        EXPECT_NE(lines[i].find(" : " + writers.back() + " ("), std::string::npos) << lines[i];
    }
    return writers;
}

// Forks while other threads write to the log. Answers with the number of records of children that were lost,
// or with 127 where a child did not end by itself.
const Role g_forkingBesideWriters("forking-beside-a-writer", [](const RoleArguments& arguments) {
    constexpr int Children = 200;
    const TQLogPtr log = Open(arguments.at(0), 1u << 30);
    const auto write = [&] { log->AddMsg((L"by " + std::to_wstring(getpid())).c_str(), TQLogLevel::Trace); };
    write();
    std::atomic<bool> goOn = true;
    const auto keepWriting = [&] {
        while (goOn)
            write();
    };
    std::jthread first(keepWriting), second(keepWriting);
    int lost = 0;
    for (int i = 0; i < Children && lost < 127; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
            write();
            _exit(static_cast<int>(log->Lost()));
        }
        int status = -1;
        waitpid(child, &status, 0);
        lost += WIFEXITED(status) ? WEXITSTATUS(status) : 127;
    }
    goOn = false;
    return std::min(lost, 127);
});

TEST(LogsOnLinux, TakeTheRecordsOfChildrenForkedBesideWriters) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer's own locks may be held";
#endif
    const LogFolder folder;
    const std::string path = (folder / "App.tlg").string();
    const int lost = RoleProcess("forking-beside-a-writer", {path}).ExitCode();
    ASSERT_LT(lost, 127);
    const std::vector<std::string> writers = WritersIn(path);
    const auto ofParent = std::ranges::count(writers, writers.at(0));
    EXPECT_EQ(lost + static_cast<int>(writers.size()) - ofParent, 200);
}

TEST(LogsOnLinux, FollowTheirNameWhereTheFileIsMovedOrDeleted) {
    const LogFolder folder;
    const fs::path path = folder / "App.tlg";
    const TQLogPtr log = Open(path);
    log->AddMsg(L"first", TQLogLevel::Trace);
    fs::rename(path, folder / "App.tlg.1");
    log->AddMsg(L"second", TQLogLevel::Trace);
    EXPECT_EQ(LinesOf(ReadBytes(path)).at(1), "    second");
    fs::remove(path);
    log->AddMsg(L"third", TQLogLevel::Trace);
    EXPECT_EQ(LinesOf(ReadBytes(path)).at(1), "    third");
    EXPECT_EQ(LinesOf(ReadBytes(folder / "App.tlg.1")).size(), 2u);
    EXPECT_EQ(log->Lost(), 0u);
    fs::remove_all(folder.Path());
    log->AddMsg(L"nowhere to go", TQLogLevel::Trace);
    fs::create_directory(folder.Path());
    log->AddMsg(L"fourth", TQLogLevel::Trace);
    EXPECT_EQ(LinesOf(ReadBytes(path)).at(1), "    1 record was lost (error 3).");
}

TEST(LogsOnLinux, WaitWithoutTheSignalsOfTheApplication) {
    const LogFolder folder;
    const auto open = [&] {
        return _TQFile(TQFileName((folder / "App.tlg").wstring().c_str()), GENERIC_READ | GENERIC_WRITE,
                       OPEN_ALWAYS, 0, _TQFile::FileShare::Read | _TQFile::FileShare::Write, {});
    };
    _TQFile one = open(), other = open();
    ASSERT_TRUE(one.Lock(0, 1, 0));
    EXPECT_FALSE(other.Lock(0, 1, 10));
    for (int number = SIGRTMIN; number <= SIGRTMAX; ++number) {
        struct sigaction action;
        sigaction(number, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_DFL) << number;
    }
}

TEST(LogsOnLinux, AreForUsersToReadAndToWriteAndKeepTheModeThatTheyHave) {
    const LogFolder folder;
    WriteBytes(folder / "Old.tlg", "old\r\n");
    ASSERT_EQ(chmod((folder / "Old.tlg").c_str(), 0606), 0);
    const mode_t mask = umask(077);
    for (const auto& [name, mode] : {std::pair("New.tlg", 0666u), {"Old.tlg", 0606u}}) {
        Open(folder / name);
        struct stat info;
        ASSERT_EQ(stat((folder / name).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, mode) << name;
    }
    umask(mask);
}

TEST(LogsOnLinux, AreNotWhereSomebodyElseHasPutALinkOrAFile) {
    const RecordingSink events;
    const LogFolder folder;
    ASSERT_EQ(chmod(folder.Path().c_str(), 01777), 0);
    WriteBytes(folder / "victim", "");
    fs::create_symlink(folder / "victim", folder / "Link.tlg");
    Open(folder / "Link.tlg")->AddMsg(L"misled", TQLogLevel::Trace);
    EXPECT_EQ(fs::file_size(folder / "victim"), 0u);
    if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    WriteBytes(folder / "Foreign.tlg", "");
    ASSERT_EQ(chown((folder / "Foreign.tlg").c_str(), 65534, 65534), 0);
    Open(folder / "Foreign.tlg")->AddMsg(L"misled", TQLogLevel::Trace);
    EXPECT_EQ(fs::file_size(folder / "Foreign.tlg"), 0u);
}

TEST(LogsOnLinux, BelongToTheProcessWhoeverItsThreadImpersonates) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
    const LogFolder folder;
    const RecordingSink events;
    ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
    WriteBytes(folder / "App.tlg", std::string(200, 'x'));
    HANDLE raw = nullptr;
    ASSERT_TRUE(
        LogonUserW(L"nobody", nullptr, nullptr, LOGON32_LOGON_NETWORK, LOGON32_PROVIDER_DEFAULT, &raw));
    const TQUniqueHandle<_TQKernelHandleClose> token(raw);
    ASSERT_TRUE(ImpersonateLoggedOnUser(token.Get()));
    const uid_t user = geteuid();
    const TQLogPtr log = Open(folder / "App.tlg", 200);
    const uid_t userAfter = geteuid();
    log->AddMsg(L"as somebody", TQLogLevel::Trace);
    RevertToSelf();
    log->AddMsg(L"as itself", TQLogLevel::Trace);
    EXPECT_NE(user, 0u);
    EXPECT_EQ(userAfter, user);
    EXPECT_TRUE(events.Entries().empty());
    for (const char* name : {"App.tlg", "App_bak.tlg"}) {
        struct stat info;
        ASSERT_EQ(stat((folder / name).c_str(), &info), 0) << name;
        EXPECT_EQ(info.st_uid, 0u) << name;
    }
    const std::vector<std::string> lines = LinesOf(ReadBytes(folder / "App.tlg"));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].find("[nobody {"), std::string::npos) << lines[0];
    EXPECT_EQ(lines[2].find("[nobody {"), std::string::npos) << lines[2];
}

// Becomes another user between two records, for good.
const Role g_becomingNobody("becoming-nobody", [](const RoleArguments& arguments) {
    const TQLogPtr log = Open(arguments.at(0));
    log->AddMsg(L"before", TQLogLevel::Trace);
    if (setgid(65534) != 0 || setuid(65534) != 0) return 126;
    for (int i = 0; i < 2; ++i)
        log->AddMsg(L"after", TQLogLevel::Trace);
    return static_cast<int>(log->Lost());
});

TEST(LogsOnLinux, NameWhomTheProcessHasBecome) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const LogFolder folder;
    ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
    const fs::path path = folder / "App.tlg";
    ASSERT_EQ(RoleProcess("becoming-nobody", {path.string()}).ExitCode(), 0);
    const std::vector<std::string> lines = LinesOf(ReadBytes(path));
    ASSERT_EQ(lines.size(), 6u);
    for (const auto& [line, isNobody] : {std::pair(0u, false), {2u, true}, {4u, true}})
        EXPECT_EQ(lines[line].find("[nobody {") != std::string::npos, isNobody) << lines[line];
}

}  // namespace
}  // namespace Quellan::Corvel::Test
