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

struct Named {
    const wchar_t* sid;
    const wchar_t* domain;
    const wchar_t* name;
    int use;
    bool isInWine = true;
};

constexpr Named PublishedNames[] = {
    {L"S-1-0-0", L"", L"NULL SID", SidTypeWellKnownGroup},
    {L"S-1-1-0", L"", L"Everyone", SidTypeWellKnownGroup},
    {L"S-1-3-0", L"", L"CREATOR OWNER", SidTypeWellKnownGroup},
    {L"S-1-5-4", L"NT AUTHORITY", L"INTERACTIVE", SidTypeWellKnownGroup},
    {L"S-1-5-7", L"NT AUTHORITY", L"ANONYMOUS LOGON", SidTypeWellKnownGroup},
    {L"S-1-5-11", L"NT AUTHORITY", L"Authenticated Users", SidTypeWellKnownGroup},
    {L"S-1-5-18", L"NT AUTHORITY", L"SYSTEM", SidTypeWellKnownGroup},
    {L"S-1-5-32", L"BUILTIN", L"BUILTIN", SidTypeDomain},
    {L"S-1-5-32-544", L"BUILTIN", L"Administrators", SidTypeAlias},
    {L"S-1-5-32-551", L"BUILTIN", L"Backup Operators", SidTypeAlias},
    {L"S-1-5-32-578", L"BUILTIN", L"Hyper-V Administrators", SidTypeAlias, false},
    {L"S-1-5-64-10", L"NT AUTHORITY", L"NTLM Authentication", SidTypeWellKnownGroup},
    {L"S-1-5-113", L"NT AUTHORITY", L"Local account", SidTypeWellKnownGroup, false},
    {L"S-1-15-2-1", L"APPLICATION PACKAGE AUTHORITY", L"ALL APPLICATION PACKAGES", SidTypeWellKnownGroup},
    {L"S-1-16-8192", L"Mandatory Label", L"Medium Mandatory Level", SidTypeLabel, false},
    {L"S-1-16-8448", L"Mandatory Label", L"Medium Plus Mandatory Level", SidTypeLabel, false},
    {L"S-1-16-20480", L"Mandatory Label", L"Protected Process Mandatory Level", SidTypeLabel, false},
    {L"S-1-5-5-0-1234", L"NT AUTHORITY", L"LogonSessionId_0_1234", 11, false},
};

TEST(Accounts, HavePublishedNamesWhereTheyAreWellKnown) {
    for (const Named& known : PublishedNames) {
        if (OnWine() && !known.isInWine) continue;
        EXPECT_EQ(NameOf(known.sid), (Found{known.name, known.domain, known.use, 0}));
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
