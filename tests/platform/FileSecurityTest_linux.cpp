#include "PlatformTest.h"
#include "TQLib/platform/OpenFiles.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/files/PosixLists.h"
#include "TQLib/text/memory/TQHandle.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

namespace fs = std::filesystem;
using Platform::AccessEntry;
using Platform::FileSecurity;
using Platform::PosixFile;
using Platform::PosixList;
using Platform::SidOfAccount;
using Platform::SidValue;
using Handle = TQHandle<_TQFileHandleClose>;

const SidValue Everyone(1, {0});
const SidValue Users(5, {32, 545});
const SidValue Administrators(5, {32, 544});
const SidValue Stranger(5, {21, 1, 2, 3, 1001});

constexpr DWORD Owner = 1234, Group = 5678;
constexpr BYTE BothInherit = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

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

// A machine of its own for lists: who may do what by the platform's rules, and by those of the kernel.
struct Somebody {
    DWORD user;
    std::vector<DWORD> groups;
};

SidValue UserSid(DWORD id) {
    return *SidOfAccount({.isGroup = false, .id = id});
}

SidValue GroupSid(DWORD id) {
    return *SidOfAccount({.isGroup = true, .id = id});
}

bool Is(const Somebody& who, const SidValue& sid, const PosixFile& file) {
    const auto has = [&](DWORD group) { return std::ranges::find(who.groups, group) != who.groups.end(); };
    if (sid == Everyone || sid == Users || sid == UserSid(who.user)) return true;
    if (sid == SidValue(3, {0})) return who.user == file.owner;
    if (sid == SidValue(3, {1})) return has(file.group);
    return std::ranges::any_of(who.groups, [&](DWORD group) { return sid == GroupSid(group); });
}

DWORD ListGives(const std::vector<AccessEntry>& list, const Somebody& who, const PosixFile& file) {
    DWORD allowed = 0, denied = 0;
    for (const AccessEntry& entry : list) {
        if (!Is(who, entry.sid, file)) continue;
        if (entry.type == ACCESS_ALLOWED_ACE_TYPE)
            allowed |= entry.mask & ~denied;
        else
            denied |= entry.mask & ~allowed;
    }
    return allowed;
}

bool Has(const std::vector<AccessEntry>& list, const SidValue& sid) {
    return std::ranges::any_of(list, [&](const AccessEntry& entry) { return entry.sid == sid; });
}

bool KernelGives(const PosixList& list, const Somebody& who, const PosixFile& file, mode_t bit) {
    if (who.user == file.owner) return list.owner & bit;
    for (const auto& entry : list.named)
        if (!entry.isGroup && entry.id == who.user) return entry.bits & bit;
    bool isFound = false;
    for (const DWORD group : who.groups) {
        if (group == file.group) {
            isFound = true;
            if (list.group & bit) return true;
        }
        for (const auto& entry : list.named) {
            if (!entry.isGroup || entry.id != group) continue;
            isFound = true;
            if (entry.bits & bit) return true;
        }
    }
    return !isFound && list.others & bit;
}

// They give the same to whoever has one group at most and is not named, where nothing is denied.
TEST(PosixLists, NeverGiveWhatTheListDoesNot) {
    const SidValue named[] = {UserSid(11),     UserSid(12), GroupSid(21), GroupSid(22),     UserSid(Owner),
                              GroupSid(Group), Everyone,    Users,        SidValue(3, {0}), SidValue(3, {1})};
    const DWORD masks[] = {
        1, 2, 4, 0x20, 0x40, 0x46, 0x67, FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_ALL_ACCESS};
    const Somebody people[] = {{Owner, {Group}},  {Owner, {21}},  {11, {21}}, {12, {21, 22}},
                               {13, {22, Group}}, {13, {21, 22}}, {14, {}},   {11, {Group, 22}}};
    std::mt19937 random(20);
    unsigned compared = 0;
    for (unsigned i = 0; i < 20'000; ++i) {
        const PosixFile file{.owner = Owner,
                             .group = Group,
                             .isFolder = i % 2 == 0,
                             .isSticky = i % 3 == 0,
                             .isExecutable = true};
        std::vector<AccessEntry> list;
        for (auto n = random() % 6; n > 0; --n)
            list.push_back({random() % 3 == 0 ? ACCESS_DENIED_ACE_TYPE : ACCESS_ALLOWED_ACE_TYPE, 0,
                            masks[random() % std::size(masks)], named[random() % std::size(named)]});
        const bool isAllowing = std::ranges::none_of(
            list, [](const AccessEntry& entry) { return entry.type == ACCESS_DENIED_ACE_TYPE; });
        PosixList access;
        ASSERT_EQ(PosixListOf(&list, file, access), 0u);
        const DWORD write = !file.isFolder ? 2 : file.isSticky ? 6 : 0x46;
        for (const Somebody& who : people)
            for (const auto& [bit, rights] : {std::pair<mode_t, DWORD>{4, 1}, {2, write}, {1, 0x20}}) {
                const bool byList = (ListGives(list, who, file) & rights) == rights;
                const bool byKernel = KernelGives(access, who, file, bit);
                ASSERT_TRUE(byList || !byKernel) << i << " user " << who.user << " bit " << bit;
                const bool isExact = isAllowing && who.groups.size() < 2 && who.user != file.owner &&
                                     !Has(list, UserSid(who.user));
                ASSERT_TRUE(byKernel || !byList || !isExact) << i << " user " << who.user << " bit " << bit;
                compared += isExact;
            }
        // What is said of the kernel's list says no more either, and gives the same when it is set.
        const auto said = EntriesOf(access, file);
        for (const Somebody& who : people)
            for (const mode_t bit : {4, 2, 1})
                ASSERT_EQ((ListGives(said, who, file) & (bit == 4   ? 1
                                                         : bit == 2 ? 2
                                                                    : 0x20)) != 0,
                          KernelGives(access, who, file, bit))
                    << i << " user " << who.user << " bit " << bit;
    }
    EXPECT_GT(compared, 10'000u);
}

TEST(PosixLists, AreTheKernelsBytes) {
    const PosixList list{6, 4, 0, {{false, 11, 7}, {true, 21, 5}}};
    const BYTE bytes[] = {2,  0, 0, 0,                      // version
                          1,  0, 6, 0, 255, 255, 255, 255,  // owner
                          2,  0, 7, 0, 11,  0,   0,   0,    // user 11
                          4,  0, 4, 0, 255, 255, 255, 255,  // group
                          8,  0, 5, 0, 21,  0,   0,   0,    // group 21
                          16, 0, 7, 0, 255, 255, 255, 255,  // mask
                          32, 0, 0, 0, 255, 255, 255, 255};
    EXPECT_TRUE(std::ranges::equal(PosixBlock(list), bytes));
    PosixList read;
    ASSERT_TRUE(ParsePosixBlock(bytes, read));
    EXPECT_EQ(read, list);
    for (std::size_t size = 0; size < sizeof bytes; ++size)
        EXPECT_EQ(ParsePosixBlock(std::span(bytes).first(size), read), size % 8 == 4) << size;
    std::vector<BYTE> masked(std::begin(bytes), std::end(bytes));
    masked[4 + 4 * 8 + 2] = 4;
    ASSERT_TRUE(ParsePosixBlock(masked, read));
    EXPECT_EQ(read, (PosixList{6, 4, 0, {{false, 11, 4}, {true, 21, 4}}})) << "what the mask leaves";
}

TEST(PosixLists, OfFoldersGoOnToWhatIsMadeThere) {
    const PosixFile folder{.owner = Owner, .group = Group, .isFolder = true};
    const PosixList othersMake{7, 7, 7, {}}, ownerMakes{7, 5, 5, {}};
    const auto of = [&](std::vector<AccessEntry> list, const PosixList& access) {
        return InheritedPosixListOf(list, access, folder);
    };
    EXPECT_EQ(of({Allow(Everyone, FILE_ALL_ACCESS)}, ownerMakes), std::nullopt);
    for (const BYTE some :
         {OBJECT_INHERIT_ACE, CONTAINER_INHERIT_ACE, BYTE(BothInherit | NO_PROPAGATE_INHERIT_ACE)})
        EXPECT_EQ(of({Allow(Everyone, FILE_ALL_ACCESS, some)}, ownerMakes), std::nullopt) << int{some};
    EXPECT_EQ(of({Allow(Everyone, FILE_GENERIC_READ, BothInherit),
                  Allow(UserSid(11), FILE_ALL_ACCESS, BothInherit)},
                 ownerMakes),
              (PosixList{4, 4, 4, {{false, 11, 7}}}));
    const std::vector<AccessEntry> owners{Allow(UserSid(Owner), FILE_ALL_ACCESS, BothInherit)};
    EXPECT_EQ(of(owners, ownerMakes), (PosixList{7, 0, 0, {}})) << "nobody else makes anything here";
    EXPECT_EQ(of(owners, othersMake), (PosixList{0, 0, 0, {{false, Owner, 7}}}));
    AccessEntry some = Deny(UserSid(11), FILE_READ_DATA);
    some.flags = OBJECT_INHERIT_ACE;
    EXPECT_EQ(of({some, Allow(Everyone, FILE_GENERIC_READ, BothInherit)}, othersMake)->named[0].bits, 0u);
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

TEST_F(FilesSecurity, KeepsEntriesWithTheRightsThatTheKernelGives) {
    EXPECT_TRUE(
        Make({Allow(Everyone, FILE_ALL_ACCESS, INHERITED_ACE), Allow(Stranger, FILE_GENERIC_EXECUTE)}));
    const auto list = List();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].flags, INHERITED_ACE);
    EXPECT_EQ(list[0].mask, FILE_GENERIC_READ | FILE_GENERIC_WRITE);
}

TEST_F(FilesSecurity, FollowsTheBitsWhereTheyWereChanged) {
    EXPECT_TRUE(Make({Allow(Users, FILE_GENERIC_READ)}));
    ASSERT_EQ(chmod(fs::path(m_path).c_str(), 0604), 0);
    const auto list = List();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].mask, FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    EXPECT_EQ(list[1].type, ACCESS_DENIED_ACE_TYPE) << "the group does not get what others do";
    EXPECT_EQ(list[2].sid, Everyone);
    EXPECT_EQ(list[2].mask, FILE_GENERIC_READ);
}

TEST_F(FilesSecurity, ThatCannotBeHadMakesNoFile) {
    EXPECT_FALSE(Make({Deny(Stranger, GENERIC_READ)}));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_SUPPORTED});
    EXPECT_FALSE(fs::exists(m_path));
}

// As a thread of its own that is somebody else.
int ErrorOfOpening(const fs::path& path, int flags, DWORD user, std::vector<gid_t> groups) {
    int error = 0;
    std::thread([&] {
        syscall(SYS_setgroups, groups.size(), groups.data());
        syscall(SYS_setresgid, -1, 60'000, -1);
        syscall(SYS_setresuid, -1, user, -1);
        const int fd = open(path.c_str(), flags);
        error = fd < 0 ? errno : 0;
        if (fd >= 0) close(fd);
    }).join();
    return error;
}

DWORD Set(const fs::path& path, std::vector<AccessEntry> list) {
    std::vector<BYTE> block = MakeDescriptor(With(std::move(list)), DACL_SECURITY_INFORMATION);
    return CodeOf(SetFileSecurityW(path.wstring().c_str(), DACL_SECURITY_INFORMATION, block.data()));
}

// Whether files there have lists of users and groups; some file systems have none.
bool HasLists(const fs::path& path) {
    char byte;
    return getxattr(path.c_str(), "system.posix_acl_access", &byte, 0) >= 0 || errno != EOPNOTSUPP;
}

TEST_F(FilesSecurity, HoldsForUsersAndGroupsWhoAreNamed) {
    if (geteuid() != 0) GTEST_SKIP() << "only root becomes somebody else";
    const fs::path file(m_path);
    std::ofstream(file) << "data";
    if (!HasLists(file)) GTEST_SKIP() << "no lists in this file system";
    fs::permissions(file.parent_path(), fs::perms(0755));
    ASSERT_EQ(
        Set(file, {Deny(UserSid(11), GENERIC_ALL), Allow(UserSid(12), FILE_GENERIC_READ | FILE_GENERIC_WRITE),
                   Allow(GroupSid(21), FILE_GENERIC_WRITE | FILE_GENERIC_READ),
                   Allow(Everyone, FILE_GENERIC_READ)}),
        0u);
    const struct {
        DWORD user;
        std::vector<gid_t> groups;
        int flags;
        int error;
    } cases[] = {{11, {}, O_RDONLY, EACCES}, {11, {21}, O_RDONLY, EACCES}, {12, {}, O_RDWR, 0},
                 {13, {21}, O_RDWR, 0},      {13, {22}, O_RDONLY, 0},      {13, {22}, O_WRONLY, EACCES}};
    for (const auto& each : cases)
        EXPECT_EQ(ErrorOfOpening(file, each.flags, each.user, each.groups), each.error)
            << each.user << " for " << each.flags;
    EXPECT_EQ(List().size(), 4u) << "the descriptor as it was given";
    // What the kernel says wins: the mask takes writing from all who are named.
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    EXPECT_EQ(ErrorOfOpening(file, O_RDWR, 12, {}), EACCES);
    for (const AccessEntry& entry : List())
        EXPECT_TRUE(entry.type == ACCESS_DENIED_ACE_TYPE || entry.sid == UserSid(0) ||
                    !(entry.mask & FILE_WRITE_DATA));
}

TEST_F(FilesSecurity, OfAFolderHoldsForWhatIsMadeThere) {
    if (geteuid() != 0) GTEST_SKIP() << "only root becomes somebody else";
    const fs::path folder = fs::path(m_path).parent_path(), file = folder / "made";
    if (!HasLists(folder)) GTEST_SKIP() << "no lists in this file system";
    ASSERT_EQ(Set(folder, {Allow(UserSid(0), FILE_ALL_ACCESS, BothInherit),
                           Allow(UserSid(12), FILE_GENERIC_READ, BothInherit), Allow(Everyone, DWORD{0x20})}),
              0u);
    std::ofstream(file) << "data";
    EXPECT_EQ(ErrorOfOpening(file, O_RDONLY, 12, {}), 0);
    EXPECT_EQ(ErrorOfOpening(file, O_RDONLY, 13, {}), EACCES);
    ASSERT_EQ(Set(folder, {Allow(Everyone, FILE_ALL_ACCESS)}), 0u);
    EXPECT_EQ(getxattr(folder.c_str(), "system.posix_acl_default", nullptr, 0), -1);
}

// The attributes of a file may have to share 4 KiB: nothing is changed where the list or the descriptor has no room.
TEST_F(FilesSecurity, IsSetAsAWholeOrNotAtAll) {
    const fs::path file(m_path);
    std::ofstream(file) << "data";
    ASSERT_EQ(Set(file, {Allow(Everyone, FILE_GENERIC_READ)}), 0u);
    std::vector<char> fill(5000);
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    while (setxattr(file.c_str(), "user.fill", fill.data(), fill.size(), 0) != 0 && errno == ENOSPC)
        fill.resize(fill.size() - 4);
    if (fill.size() == 5000) GTEST_SKIP() << "as much room as one wants, or none, in this file system";
    struct stat before, after;
    ASSERT_EQ(stat(file.c_str(), &before), 0);
    std::vector<AccessEntry> large, small;
    for (DWORD id = 100; id < 120; ++id) {
        large.push_back(Allow(UserSid(id), FILE_GENERIC_READ));
        small.push_back(Allow(Users, FILE_GENERIC_READ | FILE_GENERIC_WRITE));
    }
    for (const auto& list : {large, small}) {
        EXPECT_EQ(Set(file, list), DWORD{ERROR_DISK_FULL});
        ASSERT_EQ(stat(file.c_str(), &after), 0);
        EXPECT_EQ(after.st_mode, before.st_mode);
        EXPECT_EQ(getxattr(file.c_str(), "system.posix_acl_access", nullptr, 0), -1);
    }
    // Half of it would fit.
    ASSERT_EQ(setxattr(file.c_str(), "user.fill", fill.data(), fill.size() - 300, 0), 0);
    EXPECT_EQ(Set(file, large), DWORD{ERROR_DISK_FULL});
    ASSERT_EQ(stat(file.c_str(), &after), 0);
    EXPECT_EQ(after.st_mode, before.st_mode);
    EXPECT_EQ(getxattr(file.c_str(), "system.posix_acl_access", nullptr, 0), -1);
}

TEST_F(FilesSecurity, GivesFilesAwayWithTheirList) {
    if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
    const fs::path file(m_path);
    std::ofstream(file) << "data";
    if (!HasLists(file)) GTEST_SKIP() << "no lists in this file system";
    ASSERT_EQ(chown(file.c_str(), 11, 21), 0);
    ASSERT_EQ(chmod(file.c_str(), 04760), 0);
    FileSecurity security;
    security.owner = UserSid(12);
    security.group = GroupSid(22);
    constexpr DWORD Parts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION;
    std::vector<BYTE> block = MakeDescriptor(security, Parts);
    ASSERT_EQ(CodeOf(SetFileSecurityW(m_path.c_str(), Parts, block.data())), 0u);
    struct stat info;
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 12u);
    EXPECT_EQ(info.st_gid, 22u);
    EXPECT_EQ(info.st_mode & 07707, 0u) << "the new owner was not in the list, and it runs as nobody";
    fs::permissions(file.parent_path(), fs::perms(0755));
    EXPECT_EQ(ErrorOfOpening(file, O_RDWR, 11, {}), 0);
    EXPECT_EQ(ErrorOfOpening(file, O_RDWR, 13, {22}), EACCES);

    security.owner = GroupSid(22);
    block = MakeDescriptor(security, Parts);
    EXPECT_EQ(CodeOf(SetFileSecurityW(m_path.c_str(), Parts, block.data())), DWORD{ERROR_INVALID_OWNER});
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
