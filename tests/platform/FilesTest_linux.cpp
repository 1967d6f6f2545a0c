#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

using Path = std::filesystem::path;

HANDLE Open(const Path& path, DWORD access, DWORD disposition) {
    return CreateFileW(path.wstring().c_str(), access, FILE_SHARE_READ, nullptr, disposition, 0, nullptr);
}

TEST(FilesOnLinux, TellDevicesAndPipesFromFiles) {
    const TemporaryFolder folder;
    const Path pipe(folder / L"pipe"), link(folder / L"link");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::filesystem::create_symlink(pipe, link);
    EXPECT_EQ(GetFileAttributesW(L"/dev/null"), FILE_ATTRIBUTE_DEVICE);
    EXPECT_EQ(GetFileAttributesW(pipe.wstring().c_str()), FILE_ATTRIBUTE_DEVICE);
    EXPECT_EQ(GetFileAttributesW(link.wstring().c_str()),
              FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT);
}

TEST(FilesOnLinux, OutliveTheReaderOfAPipe) {
    const TemporaryFolder folder;
    const Path pipe(folder / L"pipe");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const int reader = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const HANDLE writer = Open(pipe, GENERIC_WRITE, OPEN_EXISTING);
    DWORD written = 7;
    close(reader);
    EXPECT_EQ(CodeOf(WriteFile(writer, "x", 1, &written, nullptr)), ERROR_NO_DATA);
    EXPECT_EQ(written, 0u);
    CloseHandle(writer);
}

TEST(FilesOnLinux, WriteNothingOfABufferThatCannotBeReadToItsEnd) {
    const TemporaryFolder folder;
    constexpr SIZE_T Page = 0x1000;
    auto* const pages = static_cast<char*>(VirtualAlloc(nullptr, 2 * Page, MEM_RESERVE, PAGE_READWRITE));
    ASSERT_TRUE(VirtualAlloc(pages, Page, MEM_COMMIT, PAGE_READWRITE));
    const HANDLE file = Open(folder / L"file", GENERIC_WRITE, CREATE_NEW);
    DWORD written = 7;
    EXPECT_EQ(CodeOf(WriteFile(file, pages, 2 * Page, &written, nullptr)), ERROR_NOACCESS);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(std::filesystem::file_size(folder / L"file"), 0u);
    EXPECT_EQ(CodeOf(WriteFile(file, pages, Page, &written, nullptr)), 0u);
    CloseHandle(file);
    VirtualFree(pages, 0, MEM_RELEASE);
}

TEST(FilesOnLinux, AreReadToTheEndThatTheyHaveThen) {
    const TemporaryFolder folder;
    const Path path(folder / L"file");
    std::ofstream(path) << "text";
    const HANDLE file = Open(path, GENERIC_READ, OPEN_EXISTING);
    std::ofstream(path, std::ios::app) << " and more";
    std::string text(1 << 20, '\0');
    const auto read = [&](HANDLE from) {
        DWORD got = 0;
        EXPECT_EQ(CodeOf(ReadFile(from, text.data(), static_cast<DWORD>(text.size()), &got, nullptr)), 0u);
        CloseHandle(from);
        return text.substr(0, got);
    };
    EXPECT_EQ(read(file), "text and more");
    // Such a file comes in pieces, and has no size.
    EXPECT_GT(read(Open("/proc/self/smaps", GENERIC_READ, OPEN_EXISTING)).size(), 0x1000u);
}

// Names that are no UTF-8 can be told apart, and lead back to their files.
TEST(FilesOnLinux, GoByNamesOfAnyBytes) {
    for (const std::string_view name :
         {"\xFF", "a\xE4.txt", "\xC3\xA4\xE6\x97", "\xED\xB2\x80", "\x80\x81x\xF0\x9F\x98\x80\xC0"}) {
        const TemporaryFolder folder;
        const Path path = Path(folder.Path()) / name;
        std::ofstream(path) << "text";
        WIN32_FIND_DATAW data;
        const HANDLE find = FindFirstFileW((folder / L"?*").c_str(), &data);
        while (data.cFileName[0] == L'.')
            ASSERT_TRUE(FindNextFileW(find, &data)) << testing::PrintToString(name);
        FindClose(find);
        const std::wstring found = folder / data.cFileName, moved = found + L"2";
        wchar_t full[MAX_PATH];
        EXPECT_EQ(GetFullPathNameW(found.c_str(), MAX_PATH, full, nullptr), found.size());
        EXPECT_EQ(CodeOf(MoveFileExW(full, moved.c_str(), 0)), 0u) << testing::PrintToString(name);
        EXPECT_TRUE(std::filesystem::exists(path.native() + "2"));
        EXPECT_EQ(CodeOf(DeleteFileW(moved.c_str())), 0u);
    }
}

TEST(FilesOnLinux, AreMadeWhereALinkToNowhereLeads) {
    const TemporaryFolder folder;
    const Path target(folder / L"target"), link(folder / L"link");
    std::filesystem::create_symlink("target", link);
    EXPECT_EQ(CodeOf(Open(link, GENERIC_WRITE, OPEN_EXISTING)), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(CodeOf(Open(link, GENERIC_WRITE, CREATE_NEW)), ERROR_FILE_EXISTS);
    for (const DWORD disposition : {OPEN_ALWAYS, CREATE_ALWAYS}) {
        const HANDLE made = Open(link, GENERIC_WRITE, disposition);
        EXPECT_EQ(GetLastError(), 0u);
        EXPECT_TRUE(std::filesystem::exists(target));
        CloseHandle(made);
        std::filesystem::remove(target);
    }
}

TEST(FilesOnLinux, OfTwoLinksKeepTheOneThatTheOtherIsMovedTo) {
    const TemporaryFolder folder;
    const std::wstring one = folder / L"one", other = folder / L"other";
    std::ofstream{Path(one)} << "text";
    std::filesystem::create_hard_link(one, other);
    EXPECT_EQ(CodeOf(MoveFileExW(one.c_str(), other.c_str(), 0)), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(CodeOf(MoveFileExW(one.c_str(), other.c_str(), MOVEFILE_REPLACE_EXISTING)), 0u);
    EXPECT_FALSE(std::filesystem::exists(one));
    EXPECT_TRUE(std::filesystem::exists(other));
}

TEST(FilesOnLinux, HaveNoFullNameInAFolderThatIsGone) {
    const int before = open(".", O_PATH | O_CLOEXEC);
    {
        const TemporaryFolder folder;
        ASSERT_EQ(chdir(Path(folder.Path()).c_str()), 0);
    }
    wchar_t full[MAX_PATH];
    EXPECT_EQ(CodeOf(GetFullPathNameW(L"file", MAX_PATH, full, nullptr)), ERROR_PATH_NOT_FOUND);
    ASSERT_EQ(fchdir(before), 0);
    close(before);
}

TEST(FilesOnLinux, AreNotSaidToBeMissingWhereTheyMayNotBeSeen) {
    if (geteuid() != 0) GTEST_SKIP() << "takes another user";
    const TemporaryFolder folder;
    std::ofstream{Path(folder / L"file")};
    ASSERT_EQ(chmod(Path(folder.Path()).c_str(), 0744), 0);
    DWORD code = 0;
    std::thread([&] {
        constexpr long Nobody = 65534;
        ASSERT_EQ(syscall(SYS_setresuid, -1L, Nobody, -1L), 0);  // of this thread alone
        WIN32_FIND_DATAW data;
        code = CodeOf(FindFirstFileW((folder / L"*").c_str(), &data));
    }).join();
    EXPECT_EQ(code, ERROR_ACCESS_DENIED);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
