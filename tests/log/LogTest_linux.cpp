#include "LogFiles.h"
#include "platform/Win32.h"
#include "support/RecordingSink.h"
#include "support/Role.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

// Writes records until the file may not grow, then allows it and writes one more.
const Role g_limited("limited", [](const RoleArguments& arguments) {
    const TQLogPtr log = Open(arguments.at(0));
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 1000;
    setrlimit(RLIMIT_FSIZE, &limit);
    for (int i = 0; i < 20; ++i)
        log->AddMsg(L"a record of some length, of which a part fits", TQLogLevel::Trace);
    if (log->Size() >= 1000) return 1;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_FSIZE, &limit);
    log->AddMsg(L"last", TQLogLevel::Trace);
    return 0;
});

TEST(LogsOnLinux, TakeBackWhatDidNotFit) {
    const LogFolder folder;
    ASSERT_EQ(RoleProcess("limited", {(folder / "App.tlg").string()}).ExitCode(), 0);
    const std::vector<std::string> lines = LinesOf(ReadBytes(folder / "App.tlg"));
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines.size() % 2, 0u);
    for (std::size_t i = 1; i + 2 < lines.size(); i += 2)
        EXPECT_EQ(lines[i], "    a record of some length, of which a part fits");
    EXPECT_EQ(lines.back(), "    last");
}

TEST(LogsOnLinux, AreForUsersToReadAndToWrite) {
    const LogFolder folder;
    const mode_t mask = umask(077);
    Open(folder / "App.tlg");
    umask(mask);
    struct stat info;
    ASSERT_EQ(stat((folder / "App.tlg").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);
}

TEST(LogsOnLinux, KeepTheModeThatTheyHave) {
    const LogFolder folder;
    WriteBytes(folder / "App.tlg", "old\r\n");
    ASSERT_EQ(chmod((folder / "App.tlg").c_str(), 0640), 0);
    Open(folder / "App.tlg");
    struct stat info;
    ASSERT_EQ(stat((folder / "App.tlg").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
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
    const TQHandle<_TQKernelHandleClose> token(raw);
    ASSERT_TRUE(ImpersonateLoggedOnUser(token.Get()));
    const uid_t user = geteuid();
    const TQLogPtr log = Open(folder / "App.tlg", 200);
    const uid_t userAfter = geteuid();
    log->AddMsg(L"as somebody", TQLogLevel::Trace);
    RevertToSelf();
    EXPECT_NE(user, 0u);
    EXPECT_EQ(userAfter, user);
    EXPECT_TRUE(events.Entries().empty());
    for (const char* name : {"App.tlg", "App_bak.tlg"}) {
        struct stat info;
        ASSERT_EQ(stat((folder / name).c_str(), &info), 0) << name;
        EXPECT_EQ(info.st_uid, 0u) << name;
    }
    const std::vector<std::string> lines = LinesOf(ReadBytes(folder / "App.tlg"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("[nobody {"), std::string::npos) << lines[0];
}

}  // namespace
}  // namespace Quellan::Corvel::Test
