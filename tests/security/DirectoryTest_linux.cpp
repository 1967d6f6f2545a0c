// Accounts of a directory with unusual names, and groups and rights as the layer has them; Wine shows none of it.
#include "TQLib/security/SecIDArray.h"
#include "TQLib/security/SecPrivilegeSet.h"
#include "platform/Policy.h"
#include "security/Identifiers.h"
#include "support/Directory_linux.h"
#include "support/FailCall.h"
#include "support/ThrownCode.h"

#include <cstdio>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

using Sarvek::SecIDArray;

const wchar_t* const AdministratorsText = L"S-1-5-32-544";
const wchar_t* const UsersText = L"S-1-5-32-545";

TEST(LocalGroups, OfRootAreThoseOfTheMachine) {
    const SecID root(L"root");
    const SecIDArray groups = root.MemberOfList();
    EXPECT_TRUE(groups.Contains(Id(AdministratorsText)));
    EXPECT_TRUE(groups.Contains(Id(UsersText)));
    EXPECT_TRUE(groups.Contains(SecID(root.DomainSID(), 1001))) << "the group of that name";
    EXPECT_FALSE(groups.Contains(root));
}

TEST(LocalGroups, AreWalkedWhereTheUserIsNotFoundByName) {
    const SecID root(L"root");
    const FailCall fail("NetUserGetLocalGroups", NERR_UserNotFound);
    const SecIDArray groups = root.MemberOfList(true, false);
    EXPECT_TRUE(groups.Contains(Id(AdministratorsText)));
    EXPECT_TRUE(groups.Contains(SecID(root.DomainSID(), 1001)));
    const FailCall noMembers("NetLocalGroupGetMembers", ERROR_ACCESS_DENIED);
    const FailCall again("NetUserGetLocalGroups", NERR_UserNotFound);
    EXPECT_EQ(ThrownAction([&] { root.MemberOfList(); }), L"Enumerating Local Group Members");
}

TEST(GlobalGroups, OfAUserAreThoseOfTheDirectory) {
    const SecID user(DirectoryUsers[0]);
    const SecID domain = user.DomainSID();
    EXPECT_EQ(user.MemberOfList(false), (SecIDArray{SecID(domain, StaffRid), SecID(domain, TwinGroupRid)}));
}

class GivenRights : public testing::Test {
  protected:
    ~GivenRights() override {
        for (const SecID& id : m_given)
            m_policy.RemoveAll(id.Address());
    }

    void Give(const SecID& id, const wchar_t* right) {
        m_given.Add(id);
        EXPECT_EQ(m_policy.Add(id.Address(), right), 0u);
    }

  private:
    const Policy m_policy;
    SecIDArray m_given;
};

TEST_F(GivenRights, AreHeldAlsoByWayOfGroups) {
    const SecID user(DirectoryUsers[0]);
    Give(user, L"SeServiceLogonRight");
    Give(Id(UsersText), L"SeBackupPrivilege");
    const auto own = user.PrivilegesHeld();
    EXPECT_EQ(own.Count(), 1u);
    EXPECT_TRUE(own.Contains(L"SeServiceLogonRight"));
    const auto all = user.PrivilegesHeld(true);
    EXPECT_TRUE(all.Contains(L"SeServiceLogonRight"));
    EXPECT_TRUE(all.Contains(L"SeBackupPrivilege"));
    EXPECT_TRUE(SecID(L"root").PrivilegesHeld(true).Contains(L"SeDebugPrivilege"))
        << "by default, by AdministratorsText";
}

TEST(DisabledUsers, AreThoseWithALockedPassword) {
    EXPECT_TRUE(SecID(L"twin").IsAccountDisabled());
    EXPECT_FALSE(SecID(DirectoryUsers[1]).IsAccountDisabled());
    EXPECT_EQ(ThrownCode([] { SecID(L"group:twin").IsAccountDisabled(); }), DWORD{NERR_UserNotFound});
}

TEST(DirectoryNames, AreFoundInEverySpelling) {
    const std::wstring longName(LongNameSize, L'x');
    for (const wchar_t* name : {DirectoryUsers[0], DirectoryUsers[1], longName.c_str()}) {
        const SecID user(name);
        EXPECT_EQ(user.Name(), name);
        EXPECT_EQ(user.Use(), SidTypeUser);
        EXPECT_EQ(SecID(user.FullName().c_str()), user);
        EXPECT_EQ(SecID(user.FullName(true).c_str()), user);
        EXPECT_TRUE(user.IsMachineDomain());
    }
}

TEST(DirectoryNames, OfUserAndGroupAreToldApart) {
    EXPECT_EQ(SecID(L"twin"), SecID(L"user:twin"));
    const SecID group(L"group:twin");
    EXPECT_EQ(group.SubAuthorityValue(4), TwinGroupRid);
    EXPECT_EQ(group.Use(), SidTypeGroup);
    EXPECT_EQ(SecID(Id(group.String().c_str()).FullName().c_str()), group);
    EXPECT_TRUE(group.IsUserDefinedType());
}

TEST(SecIDDumps, GoToStreamsOfBytesToo) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
    std::fputs("dump: ", file.get());
    Id(L"S-1-1-0").DumpToFile(L"\x4E16", file.get());
    std::rewind(file.get());
    std::string text(100, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    EXPECT_EQ(text, "dump: \xE4\xB8\x96\r\nS-1-1-0[Everyone](SidTypeWellKnownGroup)");
}

TEST(Domains, OfUserAndMachineAreTheMachinesOwn) {
    const SecID machine = SecID(L"root").DomainSID();
    EXPECT_EQ(SecID::UserDomainSID(), machine);
    EXPECT_EQ(SecID::MachDomainSID(), machine);
    EXPECT_TRUE(machine.IsMachineDomain());
    EXPECT_EQ(SecID(WinAccountAdministratorSid), SecID(machine, 500));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
