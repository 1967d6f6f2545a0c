// Acting as somebody else, which only a process with root's rights can do.
#include "platform/WaitObjects.h"
#include "support/Role.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

constexpr wchar_t OtherUser[] = L"nobody";
constexpr char NativeOtherUser[] = "nobody";

class Token : public Owned {
  public:
    explicit Token(const wchar_t* user, DWORD type = LOGON32_LOGON_INTERACTIVE)
        : m_code(CodeOf(LogonUserW(user, nullptr, nullptr, type, LOGON32_PROVIDER_DEFAULT, Receive()))) {}

    DWORD Code() const { return m_code; }

  private:
    DWORD m_code;
};

struct Ids {
    uid_t user = geteuid();
    gid_t group = getegid();
    std::vector<gid_t> groups = [] {
        std::vector<gid_t> found(static_cast<std::size_t>(getgroups(0, nullptr)));
        found.resize(static_cast<std::size_t>(getgroups(static_cast<int>(found.size()), found.data())));
        return found;
    }();

    bool operator==(const Ids&) const = default;
};

std::wstring CurrentUserName() {
    wchar_t name[300];
    DWORD size = 300;
    return GetUserNameW(name, &size) ? std::wstring(name) : L"error " + std::to_wstring(GetLastError());
}

class Impersonation : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can act as somebody else";
        const passwd* const user = getpwnam(NativeOtherUser);
        if (!user) GTEST_SKIP() << "there is no user " << NativeOtherUser;
        m_user = user->pw_uid;
    }
    void TearDown() override { RevertToSelf(); }

    void Begin() {
        const Token token(OtherUser);
        ASSERT_EQ(token.Code(), 0u);
        ASSERT_TRUE(ImpersonateLoggedOnUser(token));
    }

    uid_t m_user = 0;
};

TEST_F(Impersonation, IsTheUserToTheKernelUntilItIsReverted) {
    const Ids own;
    Begin();
    EXPECT_EQ(geteuid(), m_user);
    EXPECT_NE(Ids().groups, own.groups);
    EXPECT_EQ(CurrentUserName(), OtherUser);
    EXPECT_EQ(access("/etc/shadow", R_OK), 0) << "the real user is the process's own";
    EXPECT_EQ(open("/etc/shadow", O_RDONLY | O_CLOEXEC), -1);
    ASSERT_TRUE(RevertToSelf());
    EXPECT_EQ(Ids(), own);
    EXPECT_EQ(CurrentUserName(), L"root");
    EXPECT_EQ(prctl(PR_GET_DUMPABLE), 1);
}

TEST_F(Impersonation, IsNotHandedOnToNewThreads) {
    Begin();
    uid_t seen = ~0u;
    const Worker thread([&] {
        Owned token;
        seen = geteuid();
        return CodeOf(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Receive()));
    });
    EXPECT_EQ(thread.Result(), DWORD{ERROR_NO_TOKEN});
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(geteuid(), m_user);
}

TEST_F(Impersonation, ShowsTheUserInTheThreadsToken) {
    Begin();
    Owned token, process;
    ASSERT_TRUE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, FALSE, token.Receive()));
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, process.Receive()));
    TOKEN_ELEVATION ofThread{9}, ofProcess{9};
    DWORD needed = 0;
    EXPECT_TRUE(GetTokenInformation(token, TokenElevation, &ofThread, sizeof ofThread, &needed));
    EXPECT_TRUE(GetTokenInformation(process, TokenElevation, &ofProcess, sizeof ofProcess, &needed));
    EXPECT_EQ(ofThread.TokenIsElevated, 0u);
    EXPECT_EQ(ofProcess.TokenIsElevated, 1u);
}

TEST_F(Impersonation, LeavesTheThreadAsItWasWhenItIsRefused) {
    Begin();
    const Token network(L"daemon", LOGON32_LOGON_NETWORK), primary(L"daemon");
    EXPECT_EQ(CodeOf(SetThreadToken(nullptr, primary)), DWORD{ERROR_BAD_TOKEN_TYPE});
    EXPECT_EQ(geteuid(), m_user);
    EXPECT_TRUE(SetThreadToken(nullptr, network));
    EXPECT_EQ(CurrentUserName(), L"daemon");
}

TEST_F(Impersonation, NeedsAUserOfThisMachineAndNoPassword) {
    HANDLE token = nullptr;
    const auto logOn = [&](const wchar_t* user, const wchar_t* domain, const wchar_t* password) {
        return CodeOf(
            LogonUserW(user, domain, password, LOGON32_LOGON_BATCH, LOGON32_PROVIDER_DEFAULT, &token));
    };
    EXPECT_EQ(logOn(L"nobody-is-called-so", nullptr, nullptr), DWORD{ERROR_LOGON_FAILURE});
    EXPECT_EQ(logOn(OtherUser, L"no-such-domain", nullptr), DWORD{ERROR_LOGON_FAILURE});
    EXPECT_EQ(logOn(OtherUser, nullptr, L"secret"), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(token, nullptr);
}

TEST(TokenInformation, IsRefusedWithTheCodeForWhatIsWrong) {
    Owned own, token;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), MAXIMUM_ALLOWED, own.Receive()));
    ASSERT_TRUE(
        DuplicateTokenEx(own, 0, nullptr, SecurityImpersonation, TokenImpersonation, token.Receive()));
    ACL list{.AclRevision = ACL_REVISION, .Sbz1 = 0, .AclSize = sizeof(ACL), .AceCount = 1, .Sbz2 = 0};
    void* none = nullptr;
    void* const cut = &list;
    const struct {
        TOKEN_INFORMATION_CLASS type;
        const void* information;
        DWORD size;
        DWORD code;
    } rows[] = {
        {TokenOwner, &none, sizeof none, ERROR_INVALID_SID},
        {TokenOwner, &none, sizeof none - 1, ERROR_BAD_LENGTH},
        {TokenOwner, nullptr, sizeof none, ERROR_INVALID_PARAMETER},
        {TokenDefaultDacl, &cut, sizeof cut, ERROR_INVALID_ACL},
        {TokenType, &none, sizeof none, ERROR_INVALID_PARAMETER},
    };
    for (const auto& row : rows)
        EXPECT_EQ(CodeOf(SetTokenInformation(token, row.type, const_cast<void*>(row.information), row.size)),
                  row.code)
            << row.type << " of " << row.size;
    DWORD needed = 0;
    EXPECT_EQ(CodeOf(GetTokenInformation(token, TokenLinkedToken, nullptr, 0, &needed)),
              DWORD{ERROR_NO_SUCH_LOGON_SESSION});
}

// Gives up root's rights for good. Named exit codes say what went wrong.
const Role unprivileged("unprivileged", [](const RoleArguments&) {
    enum { Done, NoToken, LoggedOn, Became, BecameNobodyElse, NotItself };
    const Token token(L"daemon", LOGON32_LOGON_NETWORK);
    if (token.Code() != 0) return static_cast<int>(NoToken);
    const passwd* const user = getpwnam(NativeOtherUser);
    if (setgroups(0, nullptr) != 0 || setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)
        return static_cast<int>(NoToken);
    if (Token(L"daemon").Code() != ERROR_PRIVILEGE_NOT_HELD) return static_cast<int>(LoggedOn);
    if (CodeOf(SetThreadToken(nullptr, token)) != ERROR_PRIVILEGE_NOT_HELD) return static_cast<int>(Became);
    if (geteuid() != user->pw_uid) return static_cast<int>(BecameNobodyElse);
    return static_cast<int>(ImpersonateSelf(SecurityImpersonation) && RevertToSelf() ? Done : NotItself);
});

TEST_F(Impersonation, NeedsTheRightToTakeOnIdentities) {
    EXPECT_EQ(RoleProcess("unprivileged").ExitCode(), 0);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
