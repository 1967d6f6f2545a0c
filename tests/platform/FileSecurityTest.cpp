#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <vector>

namespace Quellan::Corvel::Test {
namespace {

class SecurityOfFiles : public testing::Test {
  protected:
    static DWORD Read(const std::wstring& path, SECURITY_INFORMATION wanted, std::vector<BYTE>& descriptor) {
        DWORD needed = 0;
        if (GetFileSecurityW(path.c_str(), wanted, nullptr, 0, &needed)) return ERROR_SUCCESS;
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return GetLastError();
        descriptor.resize(needed);
        return CodeOf(GetFileSecurityW(path.c_str(), wanted, descriptor.data(), needed, &needed));
    }
    static std::vector<BYTE> CurrentUser() {
        HANDLE token = nullptr;
        OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token);
        std::vector<BYTE> user(256);
        DWORD size = 0;
        EXPECT_TRUE(
            GetTokenInformation(token, TokenUser, user.data(), static_cast<DWORD>(user.size()), &size));
        CloseHandle(token);
        return user;
    }

    const TemporaryFolder m_folder;
};

TEST_F(SecurityOfFiles, TellsTheOwnerOfWhatOneMakes) {
    std::vector<BYTE> descriptor;
    ASSERT_EQ(Read(m_folder.Path(), OWNER_SECURITY_INFORMATION, descriptor), 0u);
    PSID owner = nullptr;
    BOOL isDefaulted = TRUE;
    ASSERT_TRUE(GetSecurityDescriptorOwner(descriptor.data(), &owner, &isDefaulted));
    const auto user = CurrentUser();
    EXPECT_TRUE(EqualSid(owner, reinterpret_cast<const SID_AND_ATTRIBUTES*>(user.data())->Sid));
    EXPECT_FALSE(isDefaulted);
    PSID group = owner;
    ASSERT_TRUE(GetSecurityDescriptorGroup(descriptor.data(), &group, &isDefaulted));
    EXPECT_EQ(group, nullptr) << "not asked for";
}

TEST_F(SecurityOfFiles, SaysWhyItCannotTell) {
    std::vector<BYTE> descriptor;
    EXPECT_EQ(Read(m_folder / L"missing", OWNER_SECURITY_INFORMATION, descriptor),
              DWORD{ERROR_FILE_NOT_FOUND});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
