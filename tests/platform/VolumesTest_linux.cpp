#include "PlatformTest.h"
#include "TQLib/platform/linux/files/Mounts.h"

#include <filesystem>

namespace Quellan::Corvel::Test {
namespace {

TEST(Mounts, AreReadFromTheKernelsLines) {
    Platform::Mount mount;
    ASSERT_TRUE(Platform::ParseMount(
        R"(36 35 8:17 / /media/my\040stick rw,noatime shared:1 master:2 - vfat /dev/sdb1 rw)", mount));
    EXPECT_EQ(mount.folder, "/media/my stick");
    EXPECT_EQ(mount.type, "vfat");
    EXPECT_EQ(mount.major, 8u);
    EXPECT_EQ(mount.minor, 17u);
    for (const char* line :
         {"", "36 35 8:17 / /media", "36 35 8 / /m rw - vfat x", "36 35 8:17 / m rw - vfat x"})
        EXPECT_FALSE(Platform::ParseMount(line, mount)) << line;
}

TEST(Mounts, AreOfTheTypeOfTheirFileSystem) {
    const auto type = [](const char* name) { return Platform::DriveTypeOf({"/m", name, 0, 9999}); };
    EXPECT_EQ(type("ext4"), UINT{DRIVE_FIXED});
    EXPECT_EQ(type("tmpfs"), UINT{DRIVE_RAMDISK});
    EXPECT_EQ(type("nfs4"), UINT{DRIVE_REMOTE});
    EXPECT_EQ(type("iso9660"), UINT{DRIVE_CDROM});
    if (std::filesystem::exists("/dev/shm")) {
        EXPECT_EQ(GetDriveTypeW(L"/dev/shm"), UINT{DRIVE_RAMDISK});
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
