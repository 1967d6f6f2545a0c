#include "PlatformTest.h"
#include "platform/Win32.h"

#include <filesystem>
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

    EXPECT_EQ(CodeOf(GetFileSecurityW(name.c_str(), 4, descriptor, sizeof descriptor, &needed)),
              DWORD{ERROR_NOT_SUPPORTED});
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
