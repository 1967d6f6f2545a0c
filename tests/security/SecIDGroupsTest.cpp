// The groups and rights of an identifier, as far as both platforms show them.
#include "TQLib/core/TQException.h"
#include "TQLib/security/SecIDArray.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "TQLib/system/TQSysProc.h"
#include "security/Identifiers.h"
#include "support/FailCall.h"

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecIDArray;

TEST(Groups, AreTakenFromTheSourcesAskedFor) {
    const SecID user = TQSysProc::CurrentUser();
    FailCall local("NetUserGetLocalGroups", 0, 0), global("NetUserGetGroups", 0, 0);
    EXPECT_TRUE(user.MemberOfList(false, false, false, false).IsEmpty());
    EXPECT_EQ(local.Calls() + global.Calls(), 0u);
    EXPECT_FALSE(user.MemberOfList(true, false, false, false).IsEmpty());
    EXPECT_EQ(local.Calls(), 1u);
    EXPECT_EQ(global.Calls(), 0u);
}

TEST(Groups, NameTheSourceThatFails) {
    const SecID user = TQSysProc::CurrentUser(), everyone = Id(L"S-1-1-0");
    const struct {
        const char* call;
        const SecID& id;
        bool local;
        const wchar_t* action;
    } rows[] = {{"NetUserGetLocalGroups", user, true, L"Getting security ID Local Groups"},
                {"NetUserGetGroups", user, false, L"Getting security ID Global Groups"},
                {"NetLocalGroupEnum", everyone, true, L"Enumerating Local Groups"}};
    for (const auto& row : rows) {
        const FailCall fail(row.call, ERROR_ACCESS_DENIED, 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(ThrownAction([&] { row.id.MemberOfList(row.local); }), row.action);
    }
    EXPECT_EQ(ThrownAction([&] { user.MemberOfList(false, false, true); }),
              L"Getting security ID Directory Services Groups");
}

TEST(Groups, OfOthersThanUsersAreLookedForInAllLocalGroups) {
    FailCall users("NetUserGetLocalGroups", 0, 0), all("NetLocalGroupEnum", 0, 0);
    EXPECT_TRUE(Id(L"S-1-5-18").MemberOfList(true, true, true, false).IsEmpty());
    EXPECT_EQ(users.Calls(), 0u);
    EXPECT_EQ(all.Calls(), 1u);
}

TEST(Rights, AreNoneWhereNoneWereGiven) {
    EXPECT_TRUE(Id(L"S-1-5-21-1-2-3-4").PrivilegesHeld().IsEmpty());
}

TEST(Disabled, IsAskedOfUsersAlone) {
    EXPECT_EQ(ThrownCode([] { Id(L"S-1-5-32-544").IsAccountDisabled(); }), DWORD{NERR_UserNotFound});
    EXPECT_EQ(ThrownCode([] { Id(L"S-1-5-21-1-2-3-4").IsAccountDisabled(); }), DWORD{ERROR_NONE_MAPPED});
}

TEST(Administrator, IsKnownByTheGroupsOfTheProcess) {
    BOOL isMember = FALSE;
    ASSERT_TRUE(CheckTokenMembership(nullptr, Id(L"S-1-5-32-544").Address(), &isMember));
    EXPECT_EQ(SecID::UserIsAdmin(), isMember != FALSE);
    EXPECT_GE(SecID::UserIsAdmin(true), SecID::UserIsAdmin());
}

}  // namespace
}  // namespace Quellan::Corvel::Test
