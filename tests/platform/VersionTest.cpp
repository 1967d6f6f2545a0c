#include "PlatformTest.h"
#include "platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(Version, IsOfTheNtPlatform) {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof version;
    ASSERT_EQ(CodeOf(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version))), 0u);
    EXPECT_EQ(version.dwPlatformId, DWORD{VER_PLATFORM_WIN32_NT});
    EXPECT_GE(version.dwMajorVersion, 6u);
    EXPECT_TRUE(version.wProductType >= VER_NT_WORKSTATION && version.wProductType <= VER_NT_SERVER);
}

TEST(Version, FillsNoRecordOfAnotherSize) {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);
    version.wProductType = 77;
    EXPECT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
    EXPECT_EQ(version.wProductType, 77);
    version.dwOSVersionInfoSize = sizeof version - 1;
    EXPECT_FALSE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
}

TEST(ServerProcess, CountsItsReferences) {
    const ULONG before = CoAddRefServerProcess() - 1;
    EXPECT_EQ(CoAddRefServerProcess(), before + 2);
    EXPECT_EQ(CoReleaseServerProcess(), before + 1);
    EXPECT_EQ(CoReleaseServerProcess(), before);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
