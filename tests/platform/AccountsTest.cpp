#include "platform/FoundAccounts.h"

namespace Quellan::Corvel::Test {
namespace {

std::wstring UserName() {
    wchar_t name[300];
    DWORD size = 300;
    return GetUserNameW(name, &size) ? std::wstring(name, size - 1) : std::wstring();
}

std::wstring MachineName() {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    GetComputerNameW(name, &size);
    return std::wstring(name, size);
}

TEST(Accounts, HavePublishedNamesWhereTheyAreWellKnown) {
    for (const std::string& line : DataLines("AccountNames.txt")) {
        std::istringstream cells(line);
        std::string sid, domain, name, use, missing;
        for (std::string* cell : {&sid, &domain, &name, &use, &missing})
            std::getline(cells, *cell, ';');
        if (OnWine() && !missing.empty()) continue;
        EXPECT_EQ(NameOf(Wide(sid).c_str()), (Found{Wide(name), Wide(domain), std::stoi(use), 0}));
    }
}

TEST(Accounts, AreFoundByPublishedNamesInAnyCase) {
    EXPECT_EQ(SidOf(L"EVERYONE").text, L"S-1-1-0");
    EXPECT_EQ(SidOf(L"Administrators").text, L"S-1-5-32-544");
    EXPECT_EQ(SidOf(L"builtin\\administrators").text, L"S-1-5-32-544");
    EXPECT_EQ(SidOf(L"NT AUTHORITY\\SYSTEM").text, L"S-1-5-18");
    EXPECT_EQ(SidOf(L"NT AUTHORITY\\SYSTEM").domain, L"NT AUTHORITY");
    EXPECT_EQ(SidOf(L"BUILTIN").use, SidTypeDomain);
    if (OnWine()) return;  // Wine knows no labels
    EXPECT_EQ(SidOf(L"Mandatory Label\\High Mandatory Level").text, L"S-1-16-12288");
    EXPECT_EQ(SidOf(L"NT AUTHORITY\\LogonSessionId_0_1234").text, L"S-1-5-5-0-1234");
    EXPECT_EQ(SidOf(L"NT AUTHORITY\\LogonSessionId_0_01234").code, DWORD{ERROR_NONE_MAPPED});
}

TEST(Accounts, OfServicesAreNamedAsTheServices) {
    if (OnWine()) GTEST_SKIP() << "Wine has no identifiers of services";
    constexpr const wchar_t* Key = L"SYSTEM\\CurrentControlSet\\Services\\TrustedInstaller";
    constexpr const wchar_t* Sid = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";
    EXPECT_EQ(SidOf(L"NT SERVICE\\TrustedInstaller").code, DWORD{ERROR_NONE_MAPPED});
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, Key, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
              0);
    RegCloseKey(key);
    EXPECT_EQ(NameOf(Sid), (Found{L"TrustedInstaller", L"NT SERVICE", SidTypeWellKnownGroup, 0}));
    EXPECT_EQ(SidOf(L"nt service\\trustedinstaller").text, Sid);
    EXPECT_EQ(SidOf(L"NT SERVICE\\ALL SERVICES").text, L"S-1-5-80-0");
    EXPECT_EQ(RegDeleteKeyExW(HKEY_LOCAL_MACHINE, Key, 0, 0), 0);
}

TEST(Accounts, AreFoundInBothSpellingsWithADomain) {
    EXPECT_EQ(NameOf(L"S-1-5-18", MachineName().c_str()).name, L"SYSTEM");
    const FoundSid found = SidOf(UserName());
    EXPECT_EQ(SidOf(MachineName() + L"\\" + UserName()).text, found.text);
    EXPECT_EQ(SidOf(L".\\" + UserName()).text, found.text);
    EXPECT_EQ(SidOf(UserName() + L"@no-such-domain").code, DWORD{ERROR_NONE_MAPPED});
    EXPECT_EQ(NameOf(L"S-1-9-9").code, DWORD{ERROR_NONE_MAPPED});
    if (OnWine()) return;  // Wine takes any domain in the first spelling and none in the other one
    EXPECT_EQ(SidOf(L"no-such-domain\\" + UserName()).code, DWORD{ERROR_NONE_MAPPED});
    EXPECT_EQ(SidOf(UserName() + L"@" + MachineName()).text, found.text);
}

TEST(Accounts, TellTheSizesTheirNamesNeed) {
    Sid sid(L"S-1-5-18");
    wchar_t name[300] = {}, domain[300] = {};
    DWORD nameSize = 0, domainSize = 0;
    SID_NAME_USE use{};
    const auto lookUp = [&](wchar_t* nameBuffer, wchar_t* domainBuffer) {
        return CodeOf(
            LookupAccountSidW(nullptr, sid.Get(), nameBuffer, &nameSize, domainBuffer, &domainSize, &use));
    };
    EXPECT_EQ(lookUp(nullptr, nullptr), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(nameSize, 7u);
    EXPECT_EQ(domainSize, 13u);
    domainSize = 5;
    EXPECT_EQ(lookUp(name, domain), DWORD{ERROR_INSUFFICIENT_BUFFER});
    nameSize = 7, domainSize = 13;
    EXPECT_EQ(lookUp(name, domain), 0u);
    EXPECT_EQ(nameSize, 6u);
    EXPECT_EQ(domainSize, 12u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
