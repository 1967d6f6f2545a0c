// The rights of accounts in short words.
#pragma once

#include "platform/SidTexts.h"

namespace Quellan::Corvel::Test {

// The machine's policy, closed in the end. What its calls give is the status.
class Policy {
  public:
    explicit Policy(ACCESS_MASK access = MAXIMUM_ALLOWED) {
        LSA_OBJECT_ATTRIBUTES attributes{};
        EXPECT_EQ(LsaOpenPolicy(nullptr, &attributes, access, &m_handle), 0);
    }
    ~Policy() { EXPECT_EQ(LsaClose(m_handle), 0); }
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    LSA_HANDLE Get() const { return m_handle; }
    static LSA_UNICODE_STRING Name(std::wstring& right) {
        const auto size = static_cast<unsigned short>(right.size() * sizeof(wchar_t));
        return {size, size, right.data()};
    }
    DWORD Add(PSID account, std::wstring right) const {
        LSA_UNICODE_STRING name = Name(right);
        return static_cast<DWORD>(LsaAddAccountRights(m_handle, account, &name, 1));
    }
    DWORD Remove(PSID account, std::wstring right) const {
        LSA_UNICODE_STRING name = Name(right);
        return static_cast<DWORD>(LsaRemoveAccountRights(m_handle, account, FALSE, &name, 1));
    }
    DWORD RemoveAll(PSID account) const {
        return static_cast<DWORD>(LsaRemoveAccountRights(m_handle, account, TRUE, nullptr, 0));
    }

  private:
    LSA_HANDLE m_handle = nullptr;
};

}  // namespace Quellan::Corvel::Test
