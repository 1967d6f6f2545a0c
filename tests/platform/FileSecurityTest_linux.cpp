#include "PlatformTest.h"
#include "TQLib/platform/OpenFiles.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/text/memory/TQHandle.h"

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

namespace fs = std::filesystem;
using Platform::AccessEntry;
using Platform::FileSecurity;
using Platform::SidValue;
using Handle = TQHandle<_TQFileHandleClose>;

const SidValue Everyone(1, {0});
const SidValue Users(5, {32, 545});
const SidValue Administrators(5, {32, 544});
const SidValue Stranger(5, {21, 1, 2, 3, 1001});

constexpr DWORD Owner = 1234, Group = 5678;

FileSecurity With(std::vector<AccessEntry> list) {
    FileSecurity security;
    security.control = SE_DACL_PRESENT;
    security.hasList = true;
    security.list = std::move(list);
    return security;
}

AccessEntry Allow(const SidValue& sid, DWORD mask, BYTE flags = 0) {
    return {ACCESS_ALLOWED_ACE_TYPE, flags, mask, sid};
}

AccessEntry Deny(const SidValue& sid, DWORD mask) {
    return {ACCESS_DENIED_ACE_TYPE, 0, mask, sid};
}

mode_t ModeOf(std::vector<AccessEntry> list, uid_t owner = Owner) {
    mode_t mode = 07777;
    EXPECT_EQ(Platform::ModeOf(With(std::move(list)), owner, Group, mode), 0u);
    return mode;
}

TEST(FileSecurityBits, FollowFromTheListInItsOrder) {
    EXPECT_EQ(ModeOf({}), 0u);
    EXPECT_EQ(ModeOf({Allow(Everyone, FILE_GENERIC_READ)}), 0444u);
    EXPECT_EQ(ModeOf({Allow(Users, FILE_GENERIC_READ | FILE_GENERIC_WRITE)}), 0666u);
    EXPECT_EQ(ModeOf({Deny(Everyone, FILE_WRITE_DATA), Allow(Everyone, GENERIC_ALL)}), 0444u);
    EXPECT_EQ(ModeOf({Allow(Everyone, GENERIC_ALL), Deny(Everyone, FILE_WRITE_DATA)}), 0666u);
    EXPECT_EQ(ModeOf({Allow(Everyone, GENERIC_ALL, INHERIT_ONLY_ACE)}), 0u);
    EXPECT_EQ(ModeOf({Allow(Stranger, GENERIC_ALL)}), 0u);
    EXPECT_EQ(ModeOf({Allow(SidValue(3, {0}), GENERIC_ALL)}), 0600u) << "the creator is the owner";
    EXPECT_EQ(ModeOf({Allow(SidValue(3, {1}), FILE_READ_DATA)}), 0040u) << "the creator's group is the group";
}

TEST(FileSecurityBits, CountAdministratorsForUserZeroAlone) {
    EXPECT_EQ(ModeOf({Allow(Administrators, FILE_ALL_ACCESS)}), 0u);
    EXPECT_EQ(ModeOf({Allow(Administrators, FILE_ALL_ACCESS)}, 0), 0600u);
}

TEST(FileSecurityBits, AreNotGuessedWhereStrangersAreDenied) {
    mode_t mode;
    const auto code = [&](const AccessEntry& entry) {
        return Platform::ModeOf(With({entry}), Owner, Group, mode);
    };
    EXPECT_EQ(code(Deny(Stranger, FILE_READ_DATA)), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_EQ(code(Deny(Stranger, READ_CONTROL)), 0u);
}

class FilesSecurity : public testing::Test {
  protected:
    Handle Make(const std::vector<AccessEntry>& list) const {
        std::vector<BYTE> block = MakeDescriptor(With(list), DACL_SECURITY_INFORMATION);
        SECURITY_ATTRIBUTES attributes{sizeof attributes, block.data(), FALSE};
        return Handle(CreateFileW(m_path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, &attributes, CREATE_NEW, 0,
                                  nullptr));
    }
    mode_t Mode() const {
        struct stat info;
        return stat(fs::path(m_path).c_str(), &info) == 0 ? info.st_mode & 0777 : 0;
    }
    std::vector<AccessEntry> List() const {
        std::vector<BYTE> block(1000);
        DWORD size = 0;
        EXPECT_TRUE(GetFileSecurityW(m_path.c_str(), DACL_SECURITY_INFORMATION, block.data(), 1000, &size));
        FileSecurity security;
        EXPECT_EQ(Platform::ParseDescriptor({block.data(), size}, security), 0u);
        return security.list.value_or(std::vector<AccessEntry>());
    }

    const TemporaryFolder m_folder;
    const std::wstring m_path = m_folder / L"file";
};

TEST_F(FilesSecurity, OfNewFilesIsKeptAndMeansTheirBits) {
    const mode_t mask = umask(077);
    EXPECT_TRUE(Make({Allow(Users, FILE_GENERIC_READ), Allow(Administrators, FILE_ALL_ACCESS)}));
    umask(mask);
    EXPECT_EQ(Mode(), geteuid() == 0 ? 0644u : 0444u);
    const auto list = List();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].sid, Users);
    EXPECT_EQ(list[1].sid, Administrators);
    EXPECT_EQ(list[1].mask, DWORD{FILE_ALL_ACCESS});
}

// Each of them means the same bits. Anybody who may write the file could have put it there.
TEST_F(FilesSecurity, IsNotBelievedWhereItGrantsMoreThanTheBits) {
    for (const AccessEntry& more :
         {Allow(Stranger, FILE_GENERIC_WRITE), Allow(Stranger, DELETE), Allow(Users, DELETE),
          Allow(Everyone, FILE_GENERIC_EXECUTE), Allow(SidValue(3, {1}), DELETE)}) {
        EXPECT_TRUE(Make({Allow(Users, FILE_GENERIC_READ), more}));
        for (const AccessEntry& entry : List())
            EXPECT_EQ(entry.mask, FILE_GENERIC_READ) << more.mask;
        fs::remove(m_path);
    }
}

TEST_F(FilesSecurity, FollowsTheBitsWhereTheyWereChanged) {
    EXPECT_TRUE(Make({Allow(Users, FILE_GENERIC_READ)}));
    ASSERT_EQ(chmod(fs::path(m_path).c_str(), 0604), 0);
    const auto list = List();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].mask, FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    EXPECT_EQ(list[1].sid, Everyone);
    EXPECT_EQ(list[1].mask, FILE_GENERIC_READ);
}

TEST_F(FilesSecurity, ThatCannotBeHadMakesNoFile) {
    EXPECT_FALSE(Make({Deny(Stranger, GENERIC_READ)}));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_FALSE(fs::exists(m_path));
}

TEST(Descriptors, ThatAreDamagedAreRefused) {
    const std::vector<BYTE> block =
        MakeDescriptor(With({Allow(Users, 1), Deny(Everyone, 2)}), DACL_SECURITY_INFORMATION);
    FileSecurity security;
    ASSERT_EQ(Platform::ParseDescriptor(block, security), 0u);
    for (std::size_t size = 0; size < block.size(); ++size)
        EXPECT_NE(Platform::ParseDescriptor(std::span(block).first(size), security), 0u) << size;
    ASSERT_EQ(security.list->size(), 2u) << "a failure changes nothing";
}

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
