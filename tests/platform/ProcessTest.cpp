#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

TEST(Process, KnowsTheComputersName) {
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1];
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    ASSERT_EQ(CodeOf(GetComputerNameW(name, &size)), 0u);
    EXPECT_EQ(std::wstring_view(name).size(), size);
    EXPECT_GT(size, 0u);
    DWORD tooSmall = size;
    EXPECT_EQ(CodeOf(GetComputerNameW(name, &tooSmall)), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_EQ(tooSmall, size + 1);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
