#include "TQLib/security/TQSecThreadToken.h"
#include "TQLib/system/TQSysProc.h"
#include "TQLib/threads/TQThread.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"

#include <exception>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::TQSecThreadToken;

constexpr const wchar_t* NotTakenUp = L"Process reverse impersonation revert process failed.";

// The thread impersonates; itself, which every process may do.
class ThreadTokens : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation)); }
    void TearDown() override { RevertToSelf(); }

    SecID m_id = Id(L"S-1-5-18");
};

TEST_F(ThreadTokens, AreSetAsideForTheWork) {
    bool hadToken = true;
    TQSecThreadToken::ProcImpersonate([&] { hadToken = TQThread::ThreadHasToken(); });
    EXPECT_FALSE(hadToken);
    EXPECT_TRUE(TQThread::ThreadHasToken());
}

TEST_F(ThreadTokens, AreTakenUpAgainWhenTheWorkThrows) {
    EXPECT_EQ(ThrownCode([] { TQSecThreadToken::ProcImpersonate([] { throw TQException(5, L""); }); }), 5u);
    EXPECT_TRUE(TQThread::ThreadHasToken());
    EXPECT_THROW(TQSecThreadToken::ProcImpersonate([] { throw 7; }), int);
    EXPECT_TRUE(TQThread::ThreadHasToken());
}

TEST_F(ThreadTokens, ThatCannotBeTakenUpKeepTheFailureOfTheWork) {
    const FailCall noWork("LookupAccountSidW", RPC_S_SERVER_UNAVAILABLE);
    const FailCall noToken("SetThreadToken", ERROR_ACCESS_DENIED);
    try {
        m_id.Name();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const TQSysException& failure) {
        EXPECT_EQ(failure.ErrCode(), unsigned{ERROR_ACCESS_DENIED});
        EXPECT_EQ(failure.ExcMsg(TQStrResDestination::Log), NotTakenUp);
        ASSERT_TRUE(failure.Inner());
        EXPECT_EQ(failure.Inner()->ErrCode(), unsigned{RPC_S_SERVER_UNAVAILABLE});
    }
}

TEST_F(ThreadTokens, ThatCannotBeSetAsideLeaveTheWorkUndone) {
    for (const char* call : {"OpenThreadToken", "RevertToSelf"}) {
        FailCall count("LookupAccountSidW", 0, 0);
        const FailCall fail(call, ERROR_ACCESS_DENIED);
        EXPECT_EQ(ThrownCode([&] { m_id.Name(); }), DWORD{ERROR_ACCESS_DENIED}) << call;
        EXPECT_EQ(count.Calls(), 0u);
    }
    EXPECT_TRUE(TQThread::ThreadHasToken());
}

TEST_F(ThreadTokens, AreTakenUpAfterEveryFailureOfALookup) {
    SweepFaults(
        "LookupAccountSidW", RPC_S_SERVER_UNAVAILABLE, [] { Id(L"S-1-5-18").Name(); },
        [] { EXPECT_TRUE(TQThread::ThreadHasToken()); });
    SweepFaults(
        "GetTokenInformation", ERROR_ACCESS_DENIED, [] { SecID::UserIsAdmin(); },
        [] { EXPECT_TRUE(TQThread::ThreadHasToken()); });
}

TEST_F(ThreadTokens, AreTakenUpAgainWithoutMemoryOrItIsSaid) {
    bool hasFired = true;
    for (unsigned nth = 1; hasFired; ++nth) {
        ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
        const SecID copy = m_id;
        std::exception_ptr thrown;
        {
            const FailAllocation fail(nth);
            try {
                copy.Name();
            } catch (const TQCoreException&) {
                thrown = std::current_exception();
            }
            hasFired = fail.Fired();
        }
        const std::wstring text = ThrownText([&] {
            if (thrown) std::rethrow_exception(thrown);
        });
        EXPECT_EQ(!text.empty(), hasFired) << nth;
        EXPECT_EQ(TQThread::ThreadHasToken(), text != NotTakenUp) << nth;
    }
    EXPECT_EQ(m_id.Name(), L"SYSTEM");
}

TEST(CurrentUser, IsThatOfTheProcess) {
    const SecID user = TQSysProc::CurrentUser();
    wchar_t name[300];
    DWORD size = 300;
    ASSERT_TRUE(GetUserNameW(name, &size));
    EXPECT_EQ(user.Name(), name);
    EXPECT_EQ(user.Use(), SidTypeUser);
    ASSERT_TRUE(ImpersonateSelf(SecurityImpersonation));
    EXPECT_EQ(TQSysProc::CurrentUser(), user);
    RevertToSelf();
    SweepFaults(
        "GetTokenInformation", ERROR_ACCESS_DENIED, [] { TQSysProc::CurrentUser(); }, [] {});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
