// The registry's files, and processes that are killed while they change it.
#include "RegistryTest.h"
#include "TQLib/platform/linux/base/Case.h"
#include "TQLib/platform/linux/registry/RegistryRecord.h"
#include "support/ReadBytes.h"
#include "support/Role.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace Quellan::Corvel::Test {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::wstring>;

class RegistryFiles : public RegistryTest {
  protected:
    // Of the test's key, and of its hive.
    static fs::path Folder() {
        return Hive() / "root/k.SOFTWARE" / ("k.TQLIB-TEST-" + std::to_string(getpid()));
    }
    static fs::path Hive() { return fs::path(std::getenv("TQLIB_ROOT")) / "state/registry/user"; }

    static void Write(const fs::path& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }
};

TEST_F(RegistryFiles, AreAsDocumented) {
    Make(m_key, L"a/B%");
    Set(m_key, L"Gr\u00F6\u00DFe", {REG_SZ, Bytes(std::wstring(L"\u00FC\0", 2))});
    Set(m_key, nullptr, {REG_DWORD, std::string("\1\0\0\0", 4)});
    Set(m_key, std::wstring(300, L'n').c_str(), {REG_BINARY, ""});
    EXPECT_EQ(ReadBytes(Folder() / "k.A%2fB%25/name"), "a/B%");
    EXPECT_EQ(ReadBytes(Folder() / "v.GR\u00D6\u00DFE"),
              std::string("TQRV\1\0\0\0\1\0\0\0\1\0\0\0\7\0\0\0\3\0\0\0", 24) + "Gr\u00F6\u00DFe" +
                  std::string("\u00FC\0", 3));
    const std::string number("TQRV\1\0\0\0\4\0\0\0\0\0\0\0\0\0\0\0\4\0\0\0\1\0\0\0", 28);
    EXPECT_EQ(ReadBytes(Folder() / "v."), number);
    const Platform::RegistryValue unnamed{L"", REG_DWORD, std::string("\1\0\0\0", 4)};
    EXPECT_EQ(Platform::PutRegistryKey(HKEY_CURRENT_USER, Wide(Path()) + L"\\Made", {unnamed, unnamed}), 0u);
    EXPECT_EQ(ReadBytes(Folder() / "k.MADE/name"), std::string("Made\0", 5) + number + number);
    // printf 'N%.0s' {1..300} | sha256sum
    EXPECT_TRUE(fs::exists(Folder() / "v#227343bd5f28b19e924ca194037dec1b62523d861a0680675ab10666319695bc"));
    struct stat info {};
    EXPECT_EQ(stat((Folder() / "v.").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

// A change here gives other names to what is stored.
TEST(RegistryNames, AreMadeWithATableThatNeverChanges) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (wchar_t character = 0; character <= 0x10FFFF; ++character)
        for (const wchar_t other : {Platform::ToUpper(character), Platform::ToLower(character)})
            hash = (hash ^ static_cast<std::uint32_t>(other)) * 0x100000001b3;
    EXPECT_EQ(hash, 0x284832667df1d380u);
}

TEST_F(RegistryFiles, ThatAreDamagedSpoilNothingElse) {
    Set(m_key, L"good", {REG_BINARY, "1"});
    Set(m_key, L"bad", {REG_SZ, Bytes(L"abc")});
    const std::string whole = ReadBytes(Folder() / "v.BAD");
    std::string otherVersion = whole, otherText = whole;
    otherVersion[4] = 2;
    otherText[25] = '\xFF';
    for (const std::string& text :
         {std::string(), whole.substr(0, whole.size() - 1), whole + "x", otherVersion, otherText}) {
        Write(Folder() / "v.BAD", text);
        EXPECT_EQ(Get(m_key, L"bad").code, DWORD{ERROR_REGISTRY_CORRUPT}) << testing::PrintToString(text);
        EXPECT_EQ(Listed(m_key, RegEnumValueW), Names{L"good"});
    }
    EXPECT_EQ(Get(m_key, L"good").data, "1");
    EXPECT_EQ(Set(m_key, L"bad", {REG_BINARY, "2"}), 0u);
    EXPECT_EQ(Get(m_key, L"bad").data, "2");
    EXPECT_EQ(Platform::PutRegistryKey(HKEY_CURRENT_USER, Wide(Path()) + L"\\made",
                                       {{L"a", REG_BINARY, "1"}, {L"b", REG_BINARY, "2"}}),
              0u);
    const OwnedKey made = Open(m_key, L"made");
    const std::string content = ReadBytes(Folder() / "k.MADE/name");
    Write(Folder() / "k.MADE/name", content.substr(0, content.size() - 1));
    EXPECT_EQ(Get(made, L"a").data, "1");
    EXPECT_EQ(Get(made, L"b").code, DWORD{ERROR_REGISTRY_CORRUPT});
    EXPECT_EQ(Set(made, L"b", {REG_BINARY, "3"}), 0u);
    EXPECT_EQ(Get(made, L"b").data, "3");
    EXPECT_EQ(Status(RegDeleteTreeW(m_key, L"made")), 0u);
    Make(m_key, L"key");
    for (const char* spelling : {"", "k\\y", "other"}) {
        Write(Folder() / "k.KEY/name", spelling);
        EXPECT_EQ(Listed(m_key, RegEnumKeyExW), Names()) << spelling;
    }
    Make(m_key, L"other");
    EXPECT_EQ(Status(RegDeleteKeyExW(m_key, L"key", 0, 0)), 0u);
    EXPECT_EQ(Open(m_key, L"key").Code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Listed(m_key, RegEnumKeyExW), Names{L"other"});
    fs::rename(Folder() / "v.GOOD", Folder() / "v.BETTER");
    EXPECT_EQ(Get(m_key, L"better").code, DWORD{ERROR_REGISTRY_CORRUPT});
}

TEST_F(RegistryFiles, LetGoOfTheValuesThatAKeyWasMadeWith) {
    EXPECT_EQ(Platform::PutRegistryKey(HKEY_CURRENT_USER, Wide(Path()) + L"\\made",
                                       {{L"a", REG_BINARY, "1"}, {L"b", REG_BINARY, "2"}}),
              0u);
    const OwnedKey made = Open(m_key, L"made");
    EXPECT_EQ(Set(made, L"A", {REG_BINARY, "3"}), 0u);
    EXPECT_EQ(Status(RegDeleteValueW(made, L"a")), 0u);
    EXPECT_EQ(Get(made, L"a").code, DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Status(RegDeleteValueW(made, L"a")), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Get(made, L"b").data, "2");
    EXPECT_EQ(Status(RegDeleteTreeW(made, nullptr)), 0u);
    EXPECT_EQ(Get(made, L"b").code, DWORD{ERROR_FILE_NOT_FOUND});
}

// As it is left where a folder cannot be moved and the deletion ended in the middle.
TEST_F(RegistryFiles, WithoutANameAreNoKey) {
    const OwnedKey key = Make(m_key, L"key");
    Set(key, L"value", {REG_BINARY, "1"});
    Make(m_key, L"key\\below");
    fs::remove(Folder() / "k.KEY/name");
    EXPECT_EQ(Set(key, L"value", {REG_BINARY, "2"}), DWORD{ERROR_KEY_DELETED});
    EXPECT_EQ(Open(m_key, L"key").Code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Listed(m_key, RegEnumKeyExW), Names());
    EXPECT_EQ(Get(Make(m_key, L"key"), L"value").code, DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Open(m_key, L"key\\below").Code(), DWORD{ERROR_FILE_NOT_FOUND});
    fs::remove(Folder() / "k.KEY/name");
    EXPECT_EQ(Status(RegDeleteKeyExW(HKEY_CURRENT_USER, Wide(Path()).c_str(), 0, 0)), 0u);
}

TEST_F(RegistryFiles, AreNotTrustedWhenOthersCouldHaveWrittenThem) {
    Make(m_key, L"open");
    Set(m_key, L"open", {REG_BINARY, "1"});
    fs::permissions(Folder() / "k.OPEN", fs::perms::group_write, fs::perm_options::add);
    fs::permissions(Folder() / "v.OPEN", fs::perms::others_write, fs::perm_options::add);
    fs::create_directory_symlink(Folder() / "k.OPEN", Folder() / "k.LINK");
    for (const wchar_t* name : {L"open", L"link"})
        EXPECT_EQ(Open(m_key, name).Code(), DWORD{ERROR_ACCESS_DENIED})
            << testing::PrintToString(std::wstring(name));
    EXPECT_EQ(Get(m_key, L"open").code, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Status(RegDeleteTreeW(m_key, nullptr)), 0u);
}

TEST_F(RegistryFiles, ThatAKilledWriterLeftAreClearedAwayByTheNext) {
    const OwnedKey deleted = Make(m_key, L"deleted\\below");
    const OwnedKey key = Open(m_key, L"deleted");
    fs::create_directories(Hive() / "deleted/1/k.X/k.Y");
    fs::rename(Folder() / "k.DELETED", Hive() / "deleted/0");
    fs::create_directory(Hive() / "newkey");
    Write(Hive() / "newkey/name", "half");
    Write(Hive() / "new", "half a value, longer than the next one");
    EXPECT_EQ(Make(m_key, L"made").Disposition(), DWORD{REG_CREATED_NEW_KEY});
    EXPECT_EQ(Set(m_key, L"value", {REG_BINARY, "1"}), 0u);
    EXPECT_EQ(Get(m_key, L"value").data, "1");
    EXPECT_EQ(Set(key, L"value", {REG_BINARY, "1"}), DWORD{ERROR_KEY_DELETED});
    for (const char* left : {"deleted", "newkey", "new"})
        EXPECT_FALSE(fs::exists(Hive() / left)) << left;
}

TEST_F(RegistryFiles, GoWithTheirTreeHoweverDeepItIs) {
    OwnedKey at = Make(m_key, L"tree");
    for (int depth = 0; depth < 60; ++depth)
        at = Make(at, L"below");
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit few{40, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_EQ(Status(RegDeleteTreeW(m_key, L"tree")), 0u);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(Get(at, nullptr).code, DWORD{ERROR_KEY_DELETED});
    EXPECT_FALSE(fs::exists(Hive() / "deleted"));
}

TEST_F(RegistryFiles, NeedNotExist) {
    const TemporaryFolder root;
    const EnvironmentVariable variable(L"TQLIB_ROOT", root.Path().c_str());
    wchar_t name[4];
    DWORD size = 4, subkeys = 1;
    EXPECT_EQ(Open(HKEY_LOCAL_MACHINE, L"SYSTEM").Code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Get(HKEY_LOCAL_MACHINE, L"value").code, DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Status(RegEnumKeyExW(HKEY_LOCAL_MACHINE, 0, name, &size, nullptr, nullptr, nullptr, nullptr)),
              DWORD{ERROR_NO_MORE_ITEMS});
    EXPECT_EQ(Status(RegQueryInfoKeyW(HKEY_LOCAL_MACHINE, nullptr, nullptr, nullptr, &subkeys, nullptr,
                                      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)),
              0u);
    EXPECT_EQ(subkeys, 0u);
    EXPECT_EQ(Make(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Maker").Disposition(), DWORD{REG_CREATED_NEW_KEY});
    EXPECT_EQ(Open(HKEY_LOCAL_MACHINE, L"software\\maker").Code(), 0u);
}

TEST_F(RegistryFiles, CannotBeReadByAnImpersonatedUser) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may act as somebody else";
    DWORD opened = 0, read = 0;
    std::thread([&] {
        HANDLE token = nullptr;
        ASSERT_TRUE(LogonUserW(L"nobody", nullptr, nullptr, LOGON32_LOGON_INTERACTIVE,
                               LOGON32_PROVIDER_DEFAULT, &token));
        EXPECT_TRUE(ImpersonateLoggedOnUser(token));
        opened = Open(HKEY_CURRENT_USER, L"Software").Code();
        read = Get(m_key, L"value").code;
        EXPECT_TRUE(RevertToSelf());
        CloseHandle(token);
    }).join();
    EXPECT_EQ(opened, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(read, DWORD{ERROR_ACCESS_DENIED});
}

TEST_F(RegistryFiles, AreSeenOnceByAWalkWhileEntriesGo) {
    for (const wchar_t* name : {L"a", L"b", L"c", L"d"})
        Make(m_key, name);
    std::wstring seen;
    wchar_t name[4];
    for (DWORD index = 0, size = 4;
         RegEnumKeyExW(m_key, index, name, &size, nullptr, nullptr, nullptr, nullptr) == 0;
         ++index, size = 4) {
        seen += name;
        RegDeleteKeyExW(m_key, name, 0, 0);
        if (index == 1) RegDeleteKeyExW(m_key, L"c", 0, 0);
    }
    EXPECT_EQ(seen, L"abd");
}

}  // namespace
}  // namespace Quellan::Corvel::Test
