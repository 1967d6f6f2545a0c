#include "platform/SidTexts.h"

namespace Quellan::Corvel::Test {
namespace {

constexpr DWORD NotFound = 0xC0000034, NoSuchPrivilege = 0xC0000060, AccessDenied = 0xC0000022;
constexpr DWORD InvalidParameter = 0xC000000D, InvalidSid = 0xC0000078;

DWORD Status(NTSTATUS status) {
    return static_cast<DWORD>(status);
}

class Policy {
  public:
    explicit Policy(ACCESS_MASK access) {
        LSA_OBJECT_ATTRIBUTES attributes{};
        EXPECT_EQ(Status(LsaOpenPolicy(nullptr, &attributes, access, &m_handle)), 0u);
    }
    ~Policy() { EXPECT_EQ(Status(LsaClose(m_handle)), 0u); }
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    LSA_HANDLE Get() const { return m_handle; }

  private:
    LSA_HANDLE m_handle = nullptr;
};

LSA_UNICODE_STRING Name(std::wstring& text) {
    const auto size = static_cast<unsigned short>(text.size() * sizeof(wchar_t));
    return {size, size, text.data()};
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

    DWORD Add(PSID account, std::wstring right) {
        LSA_UNICODE_STRING name = Name(right);
        return Status(LsaAddAccountRights(m_policy.Get(), account, &name, 1));
    }

    DWORD Remove(PSID account, std::wstring right) {
        LSA_UNICODE_STRING name = Name(right);
        return Status(LsaRemoveAccountRights(m_policy.Get(), account, FALSE, &name, 1));
    }

    DWORD RemoveAll(PSID account) {
        return Status(LsaRemoveAccountRights(m_policy.Get(), account, TRUE, nullptr, 0));
    }

    Policy m_policy{Access};
    Sid m_account{L"S-1-5-21-11-22-33-4444"};
};

TEST_F(AccountRights, AreGivenAndTaken) {
    if (OnWine()) GTEST_SKIP() << "Wine keeps no rights";
    Sid other(L"S-1-5-21-11-22-33-5555");
    EXPECT_EQ(Add(m_account.Get(), L"SeBackupPrivilege"), 0u);
    EXPECT_EQ(Add(m_account.Get(), L"seservicelogonright"), 0u);
    EXPECT_EQ(Add(m_account.Get(), L"SeBackupPrivilege"), 0u);
    EXPECT_EQ(Add(other.Get(), L"SeRestorePrivilege"), 0u);
    EXPECT_EQ(Held(m_account.Get()), L"SeBackupPrivilege SeServiceLogonRight ");
    EXPECT_EQ(Remove(m_account.Get(), L"SeBackupPrivilege"), 0u);
    EXPECT_EQ(Held(m_account.Get()), L"SeServiceLogonRight ");
    EXPECT_EQ(RemoveAll(m_account.Get()), 0u);
    EXPECT_EQ(Held(m_account.Get()), L"none");
    EXPECT_EQ(RemoveAll(m_account.Get()), NotFound);
    EXPECT_EQ(Held(other.Get()), L"SeRestorePrivilege ");
    EXPECT_EQ(RemoveAll(other.Get()), 0u);
}

TEST_F(AccountRights, AreRefusedAllTogetherAndWithoutTheRight) {
    if (OnWine()) GTEST_SKIP() << "Wine checks nothing";
    std::wstring good = L"SeBackupPrivilege", bad = L"SeNothingPrivilege";
    LSA_UNICODE_STRING names[] = {Name(good), Name(bad)};
    EXPECT_EQ(Status(LsaAddAccountRights(m_policy.Get(), m_account.Get(), names, 2)), NoSuchPrivilege);
    EXPECT_EQ(Held(m_account.Get()), L"none");
    EXPECT_EQ(Add(nullptr, L"SeBackupPrivilege"), InvalidSid);
    const Policy reading(POLICY_LOOKUP_NAMES);
    EXPECT_EQ(Status(LsaAddAccountRights(reading.Get(), m_account.Get(), names, 1)), AccessDenied);
}

TEST(LocalPolicy, IsOpenedWithAttributesOnThisMachine) {
    if (OnWine()) GTEST_SKIP() << "Wine asks for none and takes any machine for this one";
    std::wstring machine = L"no-such-machine";
    LSA_UNICODE_STRING name = Name(machine);
    LSA_OBJECT_ATTRIBUTES attributes{};
    LSA_HANDLE policy = nullptr;
    const NTSTATUS status = LsaOpenPolicy(&name, &attributes, POLICY_LOOKUP_NAMES, &policy);
    EXPECT_EQ(LsaNtStatusToWinError(status), DWORD{RPC_S_SERVER_UNAVAILABLE});
    EXPECT_EQ(Status(LsaOpenPolicy(nullptr, nullptr, POLICY_LOOKUP_NAMES, &policy)), InvalidParameter);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
