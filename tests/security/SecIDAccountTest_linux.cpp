// Accounts of a directory with unusual names.
#include "security/Identifiers.h"
#include "support/Directory_linux.h"

#include <cstdio>
#include <memory>

namespace Quellan::Corvel::Test {
namespace {

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
