// What the kernel makes of tokens.
#include "TQLib/security/SecPrivilege.h"
#include "TQLib/security/SecToken.h"
#include "platform/PlatformTest.h"
#include "security/Identifiers.h"
#include "support/Role.h"
#include "support/Worker.h"

#include <atomic>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <optional>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecImpersonation;
using Sarvek::SecPrivilege;
using Sarvek::SecPrivilegeSet;
using Sarvek::SecToken;

SecPrivilegeSet Only(const wchar_t* name) {
    SecPrivilegeSet set;
    set.Add(name);
    return set;
}

const wchar_t* const Backup = L"SeBackupPrivilege";
const wchar_t* const Nice = L"SeIncreaseBasePriorityPrivilege";

struct KernelCapabilities {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct words[2] = {};

    KernelCapabilities() { syscall(SYS_capget, &header, words); }
    bool Set() { return syscall(SYS_capset, &header, words) == 0; }
};

// Whether the calling thread has one of the first 32.
bool Has(unsigned capability) {
    return (KernelCapabilities().words[0].effective >> capability & 1) != 0;
}

bool CanRead(const std::string& file) {
    const int descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
}

// Becomes "nobody" for good, who may read everything and nothing else that others may not.
bool BecomeReader() {
    const passwd* const user = getpwnam("nobody");
    if (!user || prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || setgroups(0, nullptr) != 0 ||
        setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)
        return false;
    KernelCapabilities capabilities;
    for (auto& word : capabilities.words)
        word = {};
    capabilities.words[0].permitted = capabilities.words[0].effective = 1u << CAP_DAC_READ_SEARCH;
    return capabilities.Set();
}

// Somebody else's file of mode 0600, in all that may befall the privilege to read it. The exit code tells the first
// thing that was not as it should be.
const Role reader("reader", [](const RoleArguments& arguments) {
    enum { Done, NotBecome, NotHeld, NotLost, NotLent, LentToOthers, NotTakenBack, NotRegained, NotRemoved };
    const std::string& file = arguments.at(0);
    if (!BecomeReader()) return static_cast<int>(NotBecome);
    SecToken token = SecToken::OfProcess();
    if (!CanRead(file) || !token.EnabledPrivileges().Contains(Backup)) return static_cast<int>(NotHeld);
    token.Disable(Only(Backup));
    if (CanRead(file)) return static_cast<int>(NotLost);
    {
        const SecPrivilege guard(Backup);
        if (!CanRead(file)) return static_cast<int>(NotLent);
        bool others = false;
        Worker([&] { others = CanRead(file); }).Join();
        if (others) return static_cast<int>(LentToOthers);
    }
    if (CanRead(file)) return static_cast<int>(NotTakenBack);
    token.Enable(Only(Backup));
    if (!CanRead(file)) return static_cast<int>(NotRegained);
    token.Remove(Only(Backup));
    const DWORD code = ThrownCode([&] { token.Enable(Only(Backup)); });
    return static_cast<int>(CanRead(file) || code != ERROR_NOT_ALL_ASSIGNED ? NotRemoved : Done);
});

std::vector<gid_t> KernelGroups() {
    std::vector<gid_t> found(64);
    found.resize(static_cast<std::size_t>(getgroups(64, found.data())));
    return found;
}

// Has groups of its own, of which a thread does without one.
const Role grouped("grouped", [](const RoleArguments&) {
    enum { Done, NotBegun, NotLeft, NotReset, NotBack };
    const std::vector<gid_t> both{70001, 70002}, rest{70002};
    if (setgroups(2, both.data()) != 0) return static_cast<int>(NotBegun);
    SecToken token = SecToken::OfProcess().Duplicate();
    // The first one's identifier stands behind that of the user's group.
    const Sarvek::SecIDArray group{token.Groups()[1].SID()};
    {
        const SecImpersonation acting(token);
        token.DisableGroups(group);
        if (KernelGroups() != rest || token.IsMember(group[0])) return static_cast<int>(NotLeft);
        token.ResetGroups();
        if (KernelGroups().size() != 2 || !token.IsMember(group[0])) return static_cast<int>(NotReset);
        token.DisableGroups(group);
    }
    return static_cast<int>(KernelGroups() == both ? Done : NotBack);
});

class RootTokens : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root has what is changed here";
    }
    void TearDown() override { RevertToSelf(); }

    TemporaryFolder m_folder;
};

TEST_F(RootTokens, KeepAForeignFileFromWhoHasNoPrivilege) {
    const std::string file = TQString((m_folder / L"secret").c_str()).ToUtf8().c_str();
    const int descriptor = open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(descriptor, 0);
    close(descriptor);
    ASSERT_EQ(chmod(TQString(m_folder.Path().c_str()).ToUtf8().c_str(), 0755), 0);
    EXPECT_EQ(RoleProcess("reader", {file}).ExitCode(), 0);
}

TEST_F(RootTokens, ChangeWhoActsByThemAtOnce) {
    SecToken token = SecToken::OfProcess().Duplicate();
    const SecImpersonation acting(token);
    token.Disable(Only(Nice));
    EXPECT_FALSE(Has(CAP_SYS_NICE));
    DWORD elsewhere = 0;
    Worker([&] { elsewhere = ThrownCode([&] { token.Enable(Only(Nice)); }); }).Join();
    EXPECT_EQ(elsewhere, DWORD{ERROR_NOT_SUPPORTED}) << "the kernel lets a thread change itself alone";
    EXPECT_FALSE(token.EnabledPrivileges().Contains(Nice));
    SecToken::OfThread().Enable(Only(Nice));
    EXPECT_TRUE(Has(CAP_SYS_NICE));
}

TEST_F(RootTokens, OfTheProcessAreTheThreadsAndItsChildrens) {
    bool ofMaker = true, ofChild = true, after = false;
    Worker([&] {
        SecToken token = SecToken::OfProcess();
        token.Disable(Only(Nice));
        ofMaker = Has(CAP_SYS_NICE);
        Worker([&] { ofChild = Has(CAP_SYS_NICE); }).Join();
        const SecImpersonation acting(token);
        EXPECT_EQ(ThrownCode([&] { token.Enable(Only(Nice)); }), DWORD{ERROR_NOT_SUPPORTED});
    }).Join();
    Worker([&] { after = Has(CAP_SYS_NICE); }).Join();
    EXPECT_FALSE(ofMaker || ofChild);
    EXPECT_TRUE(after && Has(CAP_SYS_NICE));
}

// The right to choose groups may be gone when a thread that chose others becomes the process again.
TEST_F(RootTokens, AreLeftWithoutTheRightToTakeThemUp) {
    std::atomic<bool> isBack = false;
    Worker([&] {
        SecToken own = SecToken::OfProcess();
        const SecToken other = SecToken::LogOn(L"nobody", L".", nullptr);
        own.Disable(Only(L"SeImpersonatePrivilege"));
        EXPECT_EQ(ThrownCode([&] { SecImpersonation acting(other); }), DWORD{ERROR_PRIVILEGE_NOT_HELD});
        own.Enable(Only(L"SeImpersonatePrivilege"));
        {
            const SecImpersonation acting(other);
            EXPECT_FALSE(Has(CAP_CHOWN));
        }
        isBack = geteuid() == 0 && Has(CAP_CHOWN);
    }).Join();
    EXPECT_TRUE(isBack);
}

TEST_F(RootTokens, ThatTheKernelCannotKeepAreNotPutOn) {
    const SecToken own = SecToken::OfProcess();
    SecToken low = own.Duplicate();
    low.SetIntegrityLevel(0x1000);
    const SecToken misfits[] = {own.Duplicate().Restrict({.restricting = {Id(L"S-1-1-0")}}),
                                own.Duplicate().Restrict({.toDenyOnly = {own.User().SID()}}), std::move(low)};
    for (const SecToken& token : misfits) {
        EXPECT_EQ(ThrownCode([&] { SecImpersonation acting(token); }), DWORD{ERROR_NOT_SUPPORTED});
        EXPECT_FALSE(SecToken::OfThread());
    }
    EXPECT_EQ(ThrownCode([] { SecToken::OfProcess().SetIntegrityLevel(0x1000); }),
              DWORD{ERROR_NOT_SUPPORTED});
    SecPrivilegeSet deleted = Only(L"SeRestorePrivilege");
    const SecImpersonation acting(own.Restrict({.privileges = deleted}));
    EXPECT_FALSE(Has(CAP_DAC_OVERRIDE));
    EXPECT_EQ(ThrownCode([&] { SecPrivilege guard(deleted); }), DWORD{ERROR_NOT_ALL_ASSIGNED});
}

// Threads with guards of their own, one within the other, and others that ask for their tokens meanwhile.
TEST_F(RootTokens, DoNotMixUpThreads) {
    SecToken bare = SecToken::OfProcess().Duplicate();
    bare.DisableAllPrivileges();
    std::atomic<unsigned> wrong = 0;
    std::vector<std::unique_ptr<Worker>> workers;
    for (unsigned id = 0; id < 4; ++id) {
        workers.push_back(std::make_unique<Worker>([&wrong, &bare, id] {
            const SecToken own = bare.Duplicate();
            for (unsigned round = 0; round < 200; ++round) {
                const SecImpersonation shared(id % 2 ? bare : own);
                if (Has(CAP_SYS_NICE)) ++wrong;
                {
                    const SecPrivilege guard(id % 2 ? Nice : Backup);
                    if (Has(CAP_SYS_NICE) != (id % 2 == 1)) ++wrong;
                }
                if (Has(CAP_SYS_NICE) || SecToken::OfThread().EnabledPrivileges().Count() != 0) ++wrong;
            }
        }));
    }
    for (const auto& worker : workers)
        worker->Join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_TRUE(Has(CAP_SYS_NICE));
}

TEST_F(RootTokens, LeaveGroupsThatTheyHave) {
    EXPECT_EQ(RoleProcess("grouped").ExitCode(), 0);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
