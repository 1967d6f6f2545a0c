#include "Policy.h"

namespace Quellan::Corvel::Test {
namespace {

constexpr DWORD NotFound = 0xC0000034, NoSuchPrivilege = 0xC0000060, AccessDenied = 0xC0000022;
constexpr DWORD InvalidParameter = 0xC000000D, InvalidSid = 0xC0000078;

DWORD Status(NTSTATUS status) {
    return static_cast<DWORD>(status);
}

class AccountRights : public testing::Test {
  protected:
    static constexpr ACCESS_MASK Access = POLICY_LOOKUP_NAMES | POLICY_CREATE_ACCOUNT;

    // Each in its turn followed by a blank; or the status.
    std::wstring Held(PSID account) {
        LSA_UNICODE_STRING* rights = nullptr;
        ULONG count = 0;
        const DWORD status = Status(LsaEnumerateAccountRights(m_policy.Get(), account, &rights, &count));
        if (status != 0) return status == NotFound ? L"none" : L"status " + std::to_wstring(status);
        std::wstring names;
        for (ULONG i = 0; i < count; ++i)
            names += std::wstring(rights[i].Buffer, rights[i].Length / sizeof(wchar_t)) + L" ";
        LsaFreeMemory(rights);
        return names;
    }

    Policy m_policy{Access};
    Sid m_account{L"S-1-5-21-11-22-33-4444"};
};

TEST_F(AccountRights, AreGivenAndTaken) {
    if (OnWine()) GTEST_SKIP() << "Wine keeps no rights";
    Sid other(L"S-1-5-21-11-22-33-5555");
    EXPECT_EQ(m_policy.Add(m_account.Get(), L"SeBackupPrivilege"), 0u);
    EXPECT_EQ(m_policy.Add(m_account.Get(), L"seservicelogonright"), 0u);
    EXPECT_EQ(m_policy.Add(m_account.Get(), L"SeBackupPrivilege"), 0u);
    EXPECT_EQ(m_policy.Add(other.Get(), L"SeRestorePrivilege"), 0u);
    EXPECT_EQ(Held(m_account.Get()), L"SeBackupPrivilege SeServiceLogonRight ");
    EXPECT_EQ(m_policy.Remove(m_account.Get(), L"SeBackupPrivilege"), 0u);
    EXPECT_EQ(Held(m_account.Get()), L"SeServiceLogonRight ");
    EXPECT_EQ(m_policy.RemoveAll(m_account.Get()), 0u);
    EXPECT_EQ(Held(m_account.Get()), L"none");
    EXPECT_EQ(m_policy.RemoveAll(m_account.Get()), NotFound);
    EXPECT_EQ(Held(other.Get()), L"SeRestorePrivilege ");
    EXPECT_EQ(m_policy.RemoveAll(other.Get()), 0u);
}

TEST_F(AccountRights, AreRefusedAllTogetherAndWithoutTheRight) {
    if (OnWine()) GTEST_SKIP() << "Wine checks nothing";
    std::wstring good = L"SeBackupPrivilege", bad = L"SeNothingPrivilege";
    LSA_UNICODE_STRING names[] = {Policy::Name(good), Policy::Name(bad)};
    EXPECT_EQ(Status(LsaAddAccountRights(m_policy.Get(), m_account.Get(), names, 2)), NoSuchPrivilege);
    EXPECT_EQ(Held(m_account.Get()), L"none");
    EXPECT_EQ(m_policy.Add(nullptr, L"SeBackupPrivilege"), InvalidSid);
    const Policy reading(POLICY_LOOKUP_NAMES);
    EXPECT_EQ(Status(LsaAddAccountRights(reading.Get(), m_account.Get(), names, 1)), AccessDenied);
}

TEST(LocalPolicy, IsOpenedWithAttributesOnThisMachine) {
    if (OnWine()) GTEST_SKIP() << "Wine asks for none and takes any machine for this one";
    std::wstring machine = L"no-such-machine";
    LSA_UNICODE_STRING name = Policy::Name(machine);
    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;
    const NTSTATUS status = LsaOpenPolicy(&name, &attributes, POLICY_LOOKUP_NAMES, &policy);
    EXPECT_EQ(LsaNtStatusToWinError(status), DWORD{RPC_S_SERVER_UNAVAILABLE});
    EXPECT_EQ(Status(LsaOpenPolicy(nullptr, nullptr, POLICY_LOOKUP_NAMES, &policy)), InvalidParameter);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
