#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

std::wstring FullName(const std::wstring& name) {
    wchar_t full[1024];
    const DWORD size = GetFullPathNameW(name.c_str(), 1024, full, nullptr);
    return std::wstring(full, size);
}

std::wstring VolumeOf(const std::wstring& name) {
    wchar_t volume[1024];
    return GetVolumePathNameW(name.c_str(), volume, 1024) ? volume : L"";
}

TEST(FullNames, HaveNeitherDotsNorDoubledSeparators) {
    const TemporaryFolder folder;
    const std::wstring plain = FullName(folder / L"file.txt");
    EXPECT_EQ(FullName(folder / L"./none/..//file.txt"), plain);
    EXPECT_TRUE(plain.ends_with(L"file.txt"));
    const std::wstring relative = FullName(L"file.txt");
    EXPECT_GT(relative.size(), std::wstring_view(L"file.txt").size());
    EXPECT_EQ(FullName(relative), relative);
}

TEST(FullNames, TellTheSizeTheyNeedAndTheLastPart) {
    const TemporaryFolder folder;
    const std::wstring name = folder / L"file.txt", full = FullName(name);
    wchar_t buffer[1024];
    wchar_t* last = nullptr;
    const auto size = static_cast<DWORD>(full.size());
    EXPECT_EQ(GetFullPathNameW(name.c_str(), size, buffer, nullptr), size + 1);
    EXPECT_EQ(GetFullPathNameW(name.c_str(), size + 1, buffer, &last), size);
    EXPECT_STREQ(last, L"file.txt");
    EXPECT_EQ(GetFullPathNameW(L"", 1024, buffer, nullptr), 0u);
}

TEST(Volumes, HoldWhatIsBelowThem) {
    const TemporaryFolder folder;
    const std::wstring volume = VolumeOf(folder.Path());
    ASSERT_FALSE(volume.empty());
    EXPECT_EQ(VolumeOf(folder / L"none/none"), volume);
    EXPECT_EQ(VolumeOf(volume), volume);
    EXPECT_NE(GetDriveTypeW(volume.c_str()), UINT{DRIVE_NO_ROOT_DIR});
    EXPECT_EQ(GetDriveTypeW((folder / L"none").c_str()), UINT{DRIVE_NO_ROOT_DIR});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
