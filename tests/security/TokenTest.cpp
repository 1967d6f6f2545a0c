#include "TQLib/security/SecPrivilege.h"
#include "TQLib/security/SecToken.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/threads/TQThread.h"
#include "platform/PlatformTest.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"
#include "support/Worker.h"

#include <optional>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecACL;
using Sarvek::SecIDArray;
using Sarvek::SecIDAttr;
using Sarvek::SecImpersonation;
using Sarvek::SecPrivilege;
using Sarvek::SecPrivilegeSet;
using Sarvek::SecToken;

// Every token holds it.
constexpr const wchar_t* Held = L"SeChangeNotifyPrivilege";
constexpr const wchar_t* Unheld = L"SeCreateTokenPrivilege";

SecPrivilegeSet Names(std::initializer_list<const wchar_t*> names) {
    SecPrivilegeSet set;
    for (const wchar_t* name : names)
        set.Add(name);
    return set;
}

bool IsEnabled(const SecToken& token, const wchar_t* name = Held) {
    return token.EnabledPrivileges().Contains(name);
}

// As the calling thread has it.
bool IsEnabledNow(const wchar_t* name = Held) {
    return IsEnabled(SecToken::Effective(TOKEN_QUERY), name);
}

SecToken Copy() {
    return SecToken::OfProcess().Duplicate();
}

DWORD AttributesOf(const SecToken& token, const wchar_t* group) {
    const Sarvek::SecIDAttrArray groups = token.Groups();
    DWORD index = 0;
    return groups.IsIDInList(Id(group), &index) ? groups[index].Attributes() : 0;
}

TEST(SecTokens, TellWhoTheProcessIs) {
    const SecToken token = SecToken::OfProcess();
    EXPECT_EQ(token.User().SID(), TQSysProc::CurrentUser());
    EXPECT_TRUE(token.IsPrimary());
    EXPECT_TRUE(token.IsMember(Id(L"S-1-1-0")));
    EXPECT_FALSE(token.IsMember(Id(L"S-1-5-21-1-2-3-4")));
    EXPECT_TRUE(AttributesOf(token, L"S-1-1-0") & SE_GROUP_ENABLED);
    EXPECT_TRUE(token.Groups().IsIDInList(token.PrimaryGroup()));
    EXPECT_TRUE(token.DefaultList().has_value());
    EXPECT_EQ(token.IntegrityLevel(), token.IsElevated() ? 0x3000u : 0x2000u);
    EXPECT_FALSE(token.IsRestricted());
    EXPECT_EQ(token.Statistics().token, SecToken::OfProcess().Statistics().token);
    EXPECT_NE(token.Statistics().token, token.Duplicate().Statistics().token);
}

TEST(SecTokens, AreToldApartByThread) {
    EXPECT_FALSE(SecToken::OfThread());
    const SecImpersonation acting(Copy());
    EXPECT_TRUE(SecToken::OfThread());
    EXPECT_FALSE(SecToken::Effective().IsPrimary());
    bool hasOne = true;
    Worker([&] { hasOne = static_cast<bool>(SecToken::OfThread()); }).Join();
    EXPECT_FALSE(hasOne);
}

TEST(SecTokens, ChangeTheirPrivilegesAlone) {
    SecToken token = Copy();
    const SecPrivilegeSet one = Names({Held});
    EXPECT_TRUE(token.Enable(one).IsEmpty()) << "it was enabled before";
    EXPECT_TRUE(token.Disable(one).Contains(Held));
    EXPECT_FALSE(IsEnabled(token));
    EXPECT_TRUE(IsEnabled(SecToken::OfProcess()));
    EXPECT_TRUE(token.Enable(one).Contains(Held));
    EXPECT_TRUE(IsEnabled(token));
    const SecPrivilegeSet all = token.EnabledPrivileges();
    const SecPrivilegeSet disabled = token.DisableAllPrivileges();
    EXPECT_TRUE(token.EnabledPrivileges().IsEmpty());
    EXPECT_EQ(disabled.Count(), all.Count());
    token.Remove(one);
    EXPECT_FALSE(token.Privileges().Contains(Held));
    EXPECT_EQ(ThrownCode([&] { token.Enable(one); }), DWORD{ERROR_NOT_ALL_ASSIGNED});
}

TEST(SecTokens, ChangeNothingWhereAPrivilegeIsMissing) {
    SecToken token = Copy();
    EXPECT_EQ(ThrownCode([&] { token.Disable(Names({Held, Unheld})); }), DWORD{ERROR_NOT_ALL_ASSIGNED});
    EXPECT_EQ(ThrownCode([&] {
                  token.Disable(Names({Held, L"SeNothing"}));
              }),
              DWORD{ERROR_NO_SUCH_PRIVILEGE});
    EXPECT_TRUE(IsEnabled(token));
}

TEST(SecTokens, GiveNewDescriptorsWhatTheyAreTold) {
    SecToken token = Copy();
    const SecID world = Id(L"S-1-1-0"), nobody = Id(L"S-1-5-21-1-2-3-4");
    token.SetPrimaryGroup(world);
    EXPECT_EQ(token.PrimaryGroup(), world);
    EXPECT_EQ(ThrownCode([&] { token.SetPrimaryGroup(nobody); }), DWORD{ERROR_INVALID_PRIMARY_GROUP});
    token.SetOwner(token.User().SID());
    EXPECT_EQ(ThrownCode([&] { token.SetOwner(nobody); }), DWORD{ERROR_INVALID_OWNER});
    EXPECT_EQ(token.Owner(), token.User().SID());
    SecACL list;
    list.Allow(world, GENERIC_READ);
    token.SetDefaultList(list);
    EXPECT_EQ(token.DefaultList(), list);
    token.SetDefaultList(std::nullopt);
    EXPECT_FALSE(token.DefaultList());
    EXPECT_NE(SecToken::OfProcess().PrimaryGroup(), world);
}

TEST(SecTokens, AreRestricted) {
    const SecID users = Id(L"S-1-5-32-545"), world = Id(L"S-1-1-0");
    const SecToken token =
        Copy().Restrict({.privileges = Names({Held}), .toDenyOnly = {users}, .restricting = {world}});
    EXPECT_FALSE(token.Privileges().Contains(Held));
    EXPECT_EQ(AttributesOf(token, L"S-1-5-32-545"), DWORD{SE_GROUP_USE_FOR_DENY_ONLY});
    EXPECT_FALSE(token.IsMember(users));
    if (!OnWine()) {  // Wine forgets the restricting ones
        EXPECT_TRUE(token.IsRestricted());
        EXPECT_TRUE(token.RestrictingIDs().IsIDInList(world));
        EXPECT_TRUE(token.IsMember(world));
        EXPECT_FALSE(token.IsMember(Id(L"S-1-5-11"))) << "of the groups, and not of the restricting ones";
        EXPECT_TRUE(token.Restrict({.restricting = {users}}).RestrictingIDs().IsEmpty());
    }
    const SecToken bare = Copy().Restrict({.allPrivileges = true});
    EXPECT_EQ(bare.Privileges().Count(), 1u);
    EXPECT_TRUE(bare.Privileges().Contains(Held));
}

TEST(SecTokens, LowerTheirIntegrityAlone) {
    SecToken token = Copy();
    token.SetIntegrityLevel(0x1000);
    EXPECT_EQ(token.IntegrityLevel(), 0x1000u);
    if (!OnWine()) {  // Wine raises it
        EXPECT_EQ(ThrownCode([&] { token.SetIntegrityLevel(0x2000); }), DWORD{ERROR_PRIVILEGE_NOT_HELD});
    }
}

TEST(SecTokens, KeepTheirMandatoryGroups) {
    SecToken token = Copy();
    const DWORD expected =
        OnWine() ? ERROR_INVALID_FUNCTION : ERROR_CANT_DISABLE_MANDATORY;  // Wine has no such call
    EXPECT_EQ(ThrownCode([&] { token.DisableGroups({Id(L"S-1-1-0")}); }), expected);
    EXPECT_TRUE(token.IsMember(Id(L"S-1-1-0")));
}

TEST(SecTokens, AreNoneAtFirst) {
    const SecToken token;
    EXPECT_FALSE(token);
    EXPECT_EQ(ThrownCode([&] { (void)token.User(); }), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(ThrownCode([&] { (void)SecToken::OfProcess(TOKEN_DUPLICATE).Groups(); }),
              DWORD{ERROR_ACCESS_DENIED});
}

// The calling thread's own token lacks the privilege.
class Guards : public testing::Test {
  protected:
    void SetUp() override {
        m_own.Disable(Names({Held}));
        m_acting.emplace(m_own);
    }

    void ExpectAsBefore() const {
        const SecToken token = SecToken::OfThread();
        ASSERT_TRUE(token);
        EXPECT_EQ(token.Statistics().token, m_number);
        EXPECT_FALSE(IsEnabled(token));
    }

    SecToken m_own = Copy();
    const std::uint64_t m_number = m_own.Statistics().token;
    std::optional<SecImpersonation> m_acting;
};

TEST_F(Guards, EndExactlyAsTheyBegan) {
    {
        const SecPrivilege outer(Held);
        EXPECT_TRUE(IsEnabledNow());
        {
            const SecPrivilege inner(Held);
            EXPECT_TRUE(IsEnabledNow());
        }
        EXPECT_TRUE(IsEnabledNow()) << "it was enabled before the inner one";
    }
    ExpectAsBefore();
    EXPECT_EQ(ThrownCode([] {
                  const SecPrivilege guard(Held);
                  throw TQException(5, L"");
              }),
              5u);
    ExpectAsBefore();
    m_acting.reset();
    EXPECT_FALSE(TQThread::ThreadHasToken());
    EXPECT_TRUE(IsEnabledNow()) << "the process has it";
}

TEST_F(Guards, AreTheThreadsAlone) {
    const SecPrivilege guard(Held);
    bool hasToken = true;
    Worker([&] { hasToken = TQThread::ThreadHasToken(); }).Join();
    EXPECT_FALSE(hasToken);
    EXPECT_TRUE(IsEnabledNow());
}

TEST_F(Guards, ChangeNothingWhereTheyFail) {
    EXPECT_EQ(ThrownCode([] { SecPrivilege guard(Unheld); }), DWORD{ERROR_NOT_ALL_ASSIGNED});
    ExpectAsBefore();
    for (const char* call :
         {"OpenThreadToken", "DuplicateTokenEx", "AdjustTokenPrivileges", "SetThreadToken"}) {
        SCOPED_TRACE(call);
        {
            const FailCall fail(call, ERROR_ACCESS_DENIED);
            EXPECT_EQ(ThrownCode([] { SecPrivilege guard(Held); }), DWORD{ERROR_ACCESS_DENIED});
        }
        ExpectAsBefore();
    }
}

TEST_F(Guards, NeverStayWithoutMemory) {
    bool hasFired = true;
    for (unsigned nth = 1; hasFired; ++nth) {
        DWORD code;
        {
            const FailAllocation fail(nth);
            code = ThrownCode([] { SecPrivilege guard(Held); });
            hasFired = fail.Fired();
        }
        EXPECT_EQ(code == ERROR_OUTOFMEMORY || code == ERROR_NOT_ENOUGH_MEMORY, hasFired) << nth;
        ExpectAsBefore();
    }
    std::optional<SecPrivilege> guard(Held);
    const FailAllocation count(0);
    guard.reset();
    EXPECT_EQ(count.Calls(), 0u) << "the end of one needs memory";
}

}  // namespace
}  // namespace Quellan::Corvel::Test
