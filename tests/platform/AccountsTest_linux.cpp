#include "TQLib/platform/linux/base/Sha256.h"
#include "platform/FoundAccounts.h"
#include "support/Directory_linux.h"

#include <chrono>
#include <fstream>

namespace Quellan::Corvel::Test {
namespace {

using Platform::Sha256;
using Hash = std::array<std::uint32_t, 8>;

// Changing the derivation would give every file another owner.
TEST(MachineDomain, IsAHashOfTheMachineId) {
    std::string id;
    if (!std::getline(std::ifstream("/etc/machine-id"), id) || id.size() != 32)
        GTEST_SKIP() << "the machine has no id";
    const Hash hash = Sha256("TQLib machine domain " + id);
    EXPECT_EQ(TextOf(Sid(L"LA").Get()), L"S-1-5-21-" + std::to_wstring(hash[0]) + L"-" +
                                            std::to_wstring(hash[1]) + L"-" + std::to_wstring(hash[2]) +
                                            L"-500");
}

// The number in the machine's domain and the use, or the code: "141002 1".
std::wstring Account(const wchar_t* name) {
    const FoundSid found = SidOf(name);
    if (found.code) return L"error " + std::to_wstring(found.code);
    return found.text.substr(found.text.rfind(L'-') + 1) + L" " + std::to_wstring(found.use);
}

std::wstring NameOfNumber(DWORD rid) {
    Sid administrator(L"LA");
    *GetSidSubAuthority(administrator.Get(), 4) = rid;
    const Found found = NameOf(administrator.Get());
    return found.code ? L"error " + std::to_wstring(found.code)
                      : found.name + L" " + std::to_wstring(found.use);
}

const std::wstring NotMapped = L"error 1332";

TEST(DirectoryAccounts, AreNumberedInTheMachinesDomain) {
    EXPECT_EQ(Account(L"dir.user"), L"141002 1");
    EXPECT_EQ(Account(L"dir group"), L"141005 2");
    EXPECT_EQ(Account(L"root"), L"500 1");
    EXPECT_EQ(NameOfNumber(141002), L"dir.user 1");
    EXPECT_EQ(NameOfNumber(141005), L"dir group 2");
    EXPECT_EQ(NameOfNumber(500), L"root 1");
    EXPECT_EQ(NameOfNumber(1001), L"group:root 4") << "a user is called so too";
}

TEST(DirectoryAccounts, HaveNumbersUpToTheHighest) {
    EXPECT_EQ(Account(L"highest"), L"4294967294 1");
    EXPECT_EQ(NameOfNumber(4294967294), L"highest 1");
    EXPECT_EQ(Account(L"too.high"), NotMapped);
    for (const DWORD rid : {0u, 501u, 999u, 1000u})
        EXPECT_EQ(NameOfNumber(rid), NotMapped) << rid;
}

TEST(DirectoryAccounts, AreFoundInTheirExactSpellingBeforeOtherNames) {
    EXPECT_EQ(Account(L"everyone"), L"141006 1");
    EXPECT_EQ(Account(L"Everyone"), L"0 5");
    EXPECT_EQ(Account(L"DIR.User"), L"141002 1");
    EXPECT_EQ(Account(L"\x7528\x6237"), L"141010 1");
}

TEST(DirectoryAccounts, OfOneNameAreToldApartByTheirKind) {
    EXPECT_EQ(Account(L"twin"), L"141008 1");
    EXPECT_EQ(Account(L"user:twin"), L"141008 1");
    EXPECT_EQ(Account(L"group:twin"), L"141013 2");
    EXPECT_EQ(Account(L"group:dir.user"), NotMapped);
}

struct FreeGroupBuffer {
    void operator()(void* buffer) const { NetApiBufferFree(buffer); }
};

bool IsDisabled(const wchar_t* user) {
    BYTE* buffer = nullptr;
    EXPECT_EQ(NetUserGetInfo(nullptr, user, 20, &buffer), DWORD{NERR_Success});
    const std::unique_ptr<void, FreeGroupBuffer> owner(buffer);
    return reinterpret_cast<USER_INFO_20*>(buffer)->usri20_flags & UF_ACCOUNTDISABLE;
}

TEST(DirectoryAccounts, AreDisabledWhenLockedOrExpired) {
    EXPECT_FALSE(IsDisabled(L"dir.user"));
    EXPECT_FALSE(IsDisabled(L"user:everyone"));
    EXPECT_TRUE(IsDisabled(L"twin"));
    EXPECT_TRUE(IsDisabled(L"highest"));
}

// The answer's names, each followed by a semicolon; or the code.
template <class Entry, class Call>
std::wstring Names(Call call, wchar_t* Entry::*name) {
    BYTE* buffer = nullptr;
    DWORD read = 0, total = 0;
    const DWORD code = call(&buffer, &read, &total);
    const std::unique_ptr<void, FreeGroupBuffer> owner(buffer);
    if (code != NERR_Success) return L"error " + std::to_wstring(code);
    std::wstring names;
    for (DWORD i = 0; i < read; ++i)
        names += std::wstring(reinterpret_cast<Entry*>(buffer)[i].*name) + L";";
    return names;
}

TEST(DirectoryGroups, AreGlobalOnes) {
    const auto global = [](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetUserGetGroups(nullptr, L"dir.user", 0, buffer, MAX_PREFERRED_LENGTH, read, total);
    };
    const auto local = [](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetUserGetLocalGroups(nullptr, L"dir.user", 0, 0, buffer, MAX_PREFERRED_LENGTH, read, total);
    };
    EXPECT_EQ(Names(global, &GROUP_USERS_INFO_0::grui0_name), L"dir group;wheel;");
    EXPECT_EQ(Names(local, &LOCALGROUP_USERS_INFO_0::lgrui0_name), L"Administrators;Users;");
}

TEST(DirectoryGroups, MakeAdministrators) {
    const auto members = [](BYTE** buffer, DWORD* read, DWORD* total) {
        return NetLocalGroupGetMembers(nullptr, L"Administrators", 1, buffer, MAX_PREFERRED_LENGTH, read,
                                       total, nullptr);
    };
    const std::wstring names = Names(members, &LOCALGROUP_MEMBERS_INFO_1::lgrmi1_name);
    EXPECT_TRUE(names.starts_with(L"root;")) << testing::PrintToString(names);
    EXPECT_NE(names.find(L"dir.user;"), names.npos) << testing::PrintToString(names);
}

class SilentDirectory : public testing::Test {
  protected:
    SilentDirectory() { SilenceDirectory(true); }
    ~SilentDirectory() override { SilenceDirectory(false); }

    EnvironmentVariable m_limit{L"TQLIB_DIRECTORY_LIMIT_MS", L"50"};
};

TEST_F(SilentDirectory, IsReportedAsATimeOutByTheNetworkCalls) {
    BYTE* buffer = nullptr;
    EXPECT_EQ(NetUserGetInfo(nullptr, L"silent", 0, &buffer), DWORD{ERROR_TIMEOUT});
}

TEST_F(SilentDirectory, KeepsALimitedNumberOfThreads) {
    constexpr unsigned MostThreads = 8;
    const unsigned before = SilentQuestions();
    const auto begin = std::chrono::steady_clock::now();
    for (unsigned i = 0; i < MostThreads + 2; ++i)
        EXPECT_EQ(Account(L"silent"), NotMapped);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
    EXPECT_LE(SilentQuestions() - before, MostThreads);
    SilenceDirectory(false);
    EnvironmentVariable patient(L"TQLIB_DIRECTORY_LIMIT_MS", L"60000");
    EXPECT_EQ(Account(L"dir.user"), L"141002 1");
    EXPECT_LE(SilentQuestions() - before, MostThreads) << "nobody waits for the others any more";
}

}  // namespace
}  // namespace Quellan::Corvel::Test
