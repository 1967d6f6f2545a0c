#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

TEST(FileSecurityOnLinux, TellsAnotherOwnerThroughALink) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    const TemporaryFolder folder;
    const std::filesystem::path path(folder.Path()), link(path / "link");
    ASSERT_EQ(chown(path.c_str(), 12'345, 54'321), 0);
    std::filesystem::create_directory_symlink(path, link);
    alignas(void*) BYTE descriptor[256];
    DWORD needed = 0;
    const std::wstring name = link.wstring();
    ASSERT_TRUE(GetFileSecurityW(name.c_str(), OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION,
                                 descriptor, sizeof descriptor, &needed));
    BOOL isDefaulted;
    PSID owner = nullptr;
    PSID group = nullptr;
    GetSecurityDescriptorOwner(descriptor, &owner, &isDefaulted);
    GetSecurityDescriptorGroup(descriptor, &group, &isDefaulted);
    const auto lastPart = [](PSID sid) {
        return *GetSidSubAuthority(sid, DWORD{*GetSidSubAuthorityCount(sid)} - 1);
    };
    EXPECT_EQ(lastPart(owner), 2u * 12'345 + 1000);
    EXPECT_EQ(lastPart(group), 2u * 54'321 + 1001);

    EXPECT_EQ(CodeOf(GetFileSecurityW(name.c_str(), 8, descriptor, sizeof descriptor, &needed)),
              DWORD{ERROR_NOT_SUPPORTED});
}

// An owner who has locked himself out reads the list and changes it, if not the file.
TEST(FileSecurityOnLinux, IsTheOwnersWhateverTheBitsSay) {
    if (geteuid() != 0) GTEST_SKIP() << "only root takes on another user's identity";
    const TemporaryFolder folder;
    const std::filesystem::path path(folder.Path()), file = path / "file";
    std::ofstream(file) << "data";
    ASSERT_EQ(chown(path.c_str(), 12'345, 12'345), 0);
    ASSERT_EQ(chown(file.c_str(), 12'345, 12'345), 0);
    ASSERT_EQ(chmod(file.c_str(), 0), 0);
    const std::wstring name = file.wstring();
    alignas(void*) BYTE list[256] = {};
    DWORD open = 0, read = 0, change = 0, needed = 0;
    std::thread([&] {
        // Of this thread alone.
        syscall(SYS_setresuid, -1, 12'345, -1);
        const HANDLE opened = CreateFileW(name.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        open = CodeOf(opened != INVALID_HANDLE_VALUE);
        read = CodeOf(GetFileSecurityW(name.c_str(), DACL_SECURITY_INFORMATION, list, sizeof list, &needed));
        const SECURITY_DESCRIPTOR everybodyEverything{
            SECURITY_DESCRIPTOR_REVISION, 0, SE_DACL_PRESENT, nullptr, nullptr, nullptr, nullptr};
        auto copy = everybodyEverything;
        change = CodeOf(SetFileSecurityW(name.c_str(), DACL_SECURITY_INFORMATION, &copy));
    }).join();
    EXPECT_EQ(open, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(read, 0u);
    EXPECT_EQ(change, 0u);
    struct stat info;
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);
}

// Wine takes anything for a descriptor.
TEST(FileSecurityOnLinux, KnowsADescriptorByItsHeader) {
    BYTE noDescriptor[sizeof(SECURITY_DESCRIPTOR_RELATIVE)] = {};
    PSID owner = nullptr;
    BOOL isDefaulted;
    EXPECT_EQ(CodeOf(GetSecurityDescriptorOwner(noDescriptor, &owner, &isDefaulted)),
              DWORD{ERROR_INVALID_SECURITY_DESCR});
    EXPECT_EQ(CodeOf(GetSecurityDescriptorOwner(nullptr, &owner, &isDefaulted)),
              DWORD{ERROR_INVALID_SECURITY_DESCR});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
