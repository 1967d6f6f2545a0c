#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(Version, FillsNoRecordOfAnotherSize) {
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);
    version.wProductType = 77;
    EXPECT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
    EXPECT_EQ(version.wProductType, 77);
    version.dwOSVersionInfoSize = sizeof version - 1;
    EXPECT_FALSE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version)));
}

}  // namespace
}  // namespace Quellan::Corvel::Test
