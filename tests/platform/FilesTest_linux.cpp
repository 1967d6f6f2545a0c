#include "PlatformTest.h"
#include "platform/Win32.h"

#include <filesystem>
#include <sys/stat.h>

namespace Quellan::Corvel::Test {
namespace {

TEST(FilesOnLinux, TellDevicesAndPipesFromFiles) {
    const TemporaryFolder folder;
    const std::filesystem::path pipe(folder / L"pipe"), link(folder / L"link");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::filesystem::create_symlink(pipe, link);
    EXPECT_EQ(GetFileAttributesW(L"/dev/null"), FILE_ATTRIBUTE_DEVICE);
    EXPECT_EQ(GetFileAttributesW(pipe.wstring().c_str()), FILE_ATTRIBUTE_DEVICE);
    EXPECT_EQ(GetFileAttributesW(link.wstring().c_str()),
              FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
