#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <set>
#include <string>

namespace Quellan::Corvel::Test {
namespace {

// A file's handle, closed at the end.
class File {
  public:
    File(const std::wstring& path, DWORD access, DWORD disposition, DWORD flags = FILE_ATTRIBUTE_NORMAL)
        : m_handle(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                               nullptr, disposition, flags, nullptr)),
          m_code(GetLastError()) {}
    ~File() {
        if (m_handle != INVALID_HANDLE_VALUE) CloseHandle(m_handle);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    HANDLE Handle() const { return m_handle; }
    // The last error after opening, whether it failed or not.
    DWORD LastError() const { return m_code; }
    // The code of a failure to open, or 0.
    DWORD Code() const { return m_handle == INVALID_HANDLE_VALUE ? m_code : 0; }

    DWORD Write(std::string_view text) const {
        DWORD written = 77;
        const BOOL done =
            WriteFile(m_handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
        EXPECT_EQ(written, done ? text.size() : 0u);
        return CodeOf(done);
    }

    DWORD Seek(LONGLONG distance, DWORD method) const {
        LARGE_INTEGER to;
        to.QuadPart = distance;
        return CodeOf(SetFilePointerEx(m_handle, to, nullptr, method));
    }

    std::string Read(DWORD most = 1000) const {
        std::string text(most, '\0');
        DWORD got = 0;
        EXPECT_EQ(CodeOf(ReadFile(m_handle, text.data(), most, &got, nullptr)), 0u);
        return text.substr(0, got);
    }

  private:
    HANDLE m_handle;
    DWORD m_code;
};

class Files : public testing::Test {
  protected:
    void Make(const std::wstring& name, std::string_view text = "") const {
        const File file(m_folder / name, GENERIC_WRITE, CREATE_ALWAYS);
        ASSERT_EQ(file.Code(), 0u);
        EXPECT_EQ(file.Write(text), 0u);
    }

    std::string Contents(const std::wstring& name) const {
        const File file(m_folder / name, GENERIC_READ, OPEN_EXISTING);
        return file.Code() ? "code " + std::to_string(file.Code()) : file.Read();
    }

    bool Exists(const std::wstring& name) const {
        return GetFileAttributesW((m_folder / name).c_str()) != INVALID_FILE_ATTRIBUTES;
    }

    DWORD Delete(const std::wstring& name) const { return CodeOf(DeleteFileW((m_folder / name).c_str())); }
    DWORD MakeFolder(const std::wstring& name) const {
        return CodeOf(CreateDirectoryW((m_folder / name).c_str(), nullptr));
    }
    DWORD RemoveFolder(const std::wstring& name) const {
        return CodeOf(RemoveDirectoryW((m_folder / name).c_str()));
    }
    DWORD Move(const std::wstring& from, const std::wstring& to, DWORD flags) const {
        return CodeOf(MoveFileExW((m_folder / from).c_str(), (m_folder / to).c_str(), flags));
    }

    // What a search finds; the code of its end comes last.
    std::multiset<std::wstring> Find(const std::wstring& pattern) const {
        std::multiset<std::wstring> found;
        WIN32_FIND_DATAW data;
        const HANDLE find = FindFirstFileW((m_folder / pattern).c_str(), &data);
        if (find == INVALID_HANDLE_VALUE) return {std::to_wstring(GetLastError())};
        do
            found.insert(data.cFileName);
        while (FindNextFileW(find, &data));
        EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_MORE_FILES});
        FindClose(find);
        return found;
    }

    TemporaryFolder m_folder;
};

using Names = std::multiset<std::wstring>;

TEST_F(Files, AreOpenedByEachDisposition) {
    const std::wstring path = m_folder / L"file";
    const DWORD access = GENERIC_READ | GENERIC_WRITE;
    EXPECT_EQ(File(path, access, OPEN_EXISTING).Code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(File(path, access, TRUNCATE_EXISTING).Code(), DWORD{ERROR_FILE_NOT_FOUND});
    SetLastError(77);
    EXPECT_EQ(File(path, access, OPEN_ALWAYS).LastError(), 0u);
    EXPECT_EQ(File(path, access, OPEN_ALWAYS).LastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(File(path, access, CREATE_NEW).Code(), DWORD{ERROR_FILE_EXISTS});
    EXPECT_EQ(File(path, access, OPEN_EXISTING).Write("text"), 0u);
    EXPECT_EQ(Contents(L"file"), "text");
    EXPECT_EQ(File(path, access, CREATE_ALWAYS).LastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(Contents(L"file"), "");
    Make(L"file", "text");
    EXPECT_EQ(File(path, access, TRUNCATE_EXISTING).Code(), 0u);
    EXPECT_EQ(Contents(L"file"), "");
    EXPECT_EQ(File(path, access, 9).Code(), DWORD{ERROR_INVALID_PARAMETER});
    if (OnWine()) return;  // truncates without the right to write
    EXPECT_EQ(File(path, GENERIC_READ, TRUNCATE_EXISTING).Code(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(Files, TellAMissingFileFromAMissingFolder) {
    Make(L"file");
    EXPECT_EQ(File(m_folder / L"none", GENERIC_READ, OPEN_EXISTING).Code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(File(m_folder / L"none/file", GENERIC_READ, OPEN_EXISTING).Code(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(File(m_folder / L"none/file", GENERIC_WRITE, CREATE_NEW).Code(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(File(L"", GENERIC_READ, OPEN_EXISTING).Code(), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(CodeOf(GetFileAttributesW((m_folder / L"none").c_str()) != INVALID_FILE_ATTRIBUTES),
              DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(MakeFolder(L"none/folder"), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(Delete(L"none"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Delete(L"none/file"), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(RemoveFolder(L"none"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Move(L"none", L"new", 0), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(Move(L"file", L"none/new", 0), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(Find(L"none/*"), Names{std::to_wstring(ERROR_PATH_NOT_FOUND)});
}

TEST_F(Files, ReadWhatWasWrittenFromWhereTheyStand) {
    const File file(m_folder / L"file", GENERIC_READ | GENERIC_WRITE, CREATE_NEW, FILE_FLAG_WRITE_THROUGH);
    EXPECT_EQ(file.Write("0123456789"), 0u);
    EXPECT_EQ(file.Read(), "");
    EXPECT_EQ(file.Seek(3, FILE_BEGIN), 0u);
    EXPECT_EQ(file.Read(2), "34");
    EXPECT_EQ(file.Seek(1, FILE_CURRENT), 0u);
    EXPECT_EQ(file.Read(2), "67");
    EXPECT_EQ(file.Seek(-1, FILE_END), 0u);
    EXPECT_EQ(file.Read(), "9");
    EXPECT_EQ(file.Seek(-1, FILE_BEGIN), DWORD{ERROR_NEGATIVE_SEEK});
    EXPECT_EQ(file.Seek(0, 3), DWORD{ERROR_INVALID_PARAMETER});
    LARGE_INTEGER size;
    EXPECT_TRUE(GetFileSizeEx(file.Handle(), &size));
    EXPECT_EQ(size.QuadPart, 10);
    EXPECT_EQ(CodeOf(FlushFileBuffers(file.Handle())), 0u);
    DWORD mode;
    EXPECT_EQ(CodeOf(GetConsoleMode(file.Handle(), &mode)), DWORD{ERROR_INVALID_HANDLE}) << "no console";
}

TEST_F(Files, GrantNoMoreThanWasAskedFor) {
    Make(L"file", "text");
    const File reader(m_folder / L"file", GENERIC_READ, OPEN_EXISTING);
    EXPECT_EQ(reader.Write("x"), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(CodeOf(FlushFileBuffers(reader.Handle())), DWORD{ERROR_ACCESS_DENIED});
    const File writer(m_folder / L"file", GENERIC_WRITE, OPEN_EXISTING);
    const File asker(m_folder / L"file", 0, OPEN_EXISTING);
    char byte;
    DWORD got = 77;
    EXPECT_EQ(CodeOf(ReadFile(writer.Handle(), &byte, 1, &got, nullptr)), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(CodeOf(ReadFile(asker.Handle(), &byte, 1, &got, nullptr)), DWORD{ERROR_ACCESS_DENIED});
    LARGE_INTEGER size;
    EXPECT_TRUE(GetFileSizeEx(asker.Handle(), &size));
    EXPECT_EQ(size.QuadPart, 4);
}

TEST_F(Files, AreAppendedToWhereverTheHandleStands) {
    Make(L"file", "text");
    const File file(m_folder / L"file", FILE_APPEND_DATA, OPEN_EXISTING);
    EXPECT_EQ(file.Seek(0, FILE_BEGIN), 0u);
    EXPECT_EQ(file.Write("+more"), 0u);
    EXPECT_EQ(Contents(L"file"), "text+more");
}

TEST_F(Files, HaveAttributes) {
    Make(L"file", "text");
    WIN32_FILE_ATTRIBUTE_DATA data;
    ASSERT_TRUE(GetFileAttributesExW((m_folder / L"file").c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY), 0u);
    EXPECT_EQ(data.nFileSizeLow, 4u);
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const auto steps = [](FILETIME time) {
        return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime;
    };
    constexpr ULONGLONG Minute = 600'000'000;
    EXPECT_LT(steps(data.ftLastWriteTime) - (steps(now) - Minute), 2 * Minute);
    EXPECT_LT(steps(data.ftCreationTime) - (steps(now) - Minute), 2 * Minute);
    EXPECT_TRUE(GetFileAttributesW(m_folder.Path().c_str()) & FILE_ATTRIBUTE_DIRECTORY);
}

TEST_F(Files, ThatAreReadOnlyAreNeitherWrittenNorDeleted) {
    Make(L"file", "text");
    const std::wstring path = m_folder / L"file";
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_TRUE(GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(File(path, MAXIMUM_ALLOWED, OPEN_EXISTING).Read(), "text");
    if (!OnWine()) {  // lets root write
        EXPECT_EQ(File(path, GENERIC_WRITE, OPEN_EXISTING).Code(), DWORD{ERROR_ACCESS_DENIED});
        EXPECT_EQ(File(path, GENERIC_WRITE, CREATE_ALWAYS).Code(), DWORD{ERROR_ACCESS_DENIED});
    }
    EXPECT_EQ(Delete(L"file"), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Contents(L"file"), "text");
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(Delete(L"file"), 0u);
    const File made(path, GENERIC_WRITE, CREATE_NEW, FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(made.Write("through the handle that made it"), 0u);
    EXPECT_TRUE(GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_READONLY);
    SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);  // so that it can go
}

TEST_F(Files, OfFoldersOpenWithBackupSemanticsAlone) {
    EXPECT_EQ(File(m_folder.Path(), GENERIC_READ, OPEN_EXISTING).Code(), DWORD{ERROR_ACCESS_DENIED});
    const File folder(m_folder.Path(), GENERIC_READ, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS);
    EXPECT_EQ(folder.Code(), 0u);
    char byte;
    DWORD got;
    EXPECT_NE(CodeOf(ReadFile(folder.Handle(), &byte, 1, &got, nullptr)), 0u);
}

TEST_F(Files, AreFoundByPattern) {
    for (const wchar_t* name : {L"a.txt", L"ab.txt", L"b.dat", L"\u00E4\u65E5.txt", L"plain"})
        Make(name);
    MakeFolder(L"folder");
    EXPECT_EQ(Find(L"*"),
              (Names{L".", L"..", L"a.txt", L"ab.txt", L"b.dat", L"folder", L"plain", L"\u00E4\u65E5.txt"}));
    EXPECT_EQ(Find(L"*.*"), Find(L"*"));
    EXPECT_EQ(Find(L"pl*.*"), Names{L"plain"});
    EXPECT_EQ(Find(L"*.txt"), (Names{L"a.txt", L"ab.txt", L"\u00E4\u65E5.txt"}));
    EXPECT_EQ(Find(L"??.txt"), (Names{L"ab.txt", L"\u00E4\u65E5.txt"}));
    EXPECT_EQ(Find(L"a*t*t"), (Names{L"a.txt", L"ab.txt"}));
    EXPECT_EQ(Find(L"plain"), Names{L"plain"});
    EXPECT_EQ(Find(L"z*"), Names{std::to_wstring(ERROR_FILE_NOT_FOUND)});
    EXPECT_EQ(Find(L"none"), Names{std::to_wstring(ERROR_FILE_NOT_FOUND)});
}

TEST_F(Files, AreDescribedWhenTheyAreFound) {
    Make(L"file", "text");
    WIN32_FIND_DATAW data;
    const HANDLE find = FindFirstFileW((m_folder / L"f*").c_str(), &data);
    ASSERT_NE(find, INVALID_HANDLE_VALUE);
    EXPECT_EQ(data.nFileSizeLow, 4u);
    EXPECT_EQ(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY, 0u);
    EXPECT_EQ(CodeOf(FindClose(find)), 0u);
    EXPECT_EQ(CodeOf(FindNextFileW(INVALID_HANDLE_VALUE, &data)), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(Files, OfFoldersAreMadeAndRemoved) {
    EXPECT_EQ(MakeFolder(L"folder"), 0u);
    EXPECT_EQ(MakeFolder(L"folder"), DWORD{ERROR_ALREADY_EXISTS});
    Make(L"folder/file");
    EXPECT_EQ(RemoveFolder(L"folder"), DWORD{ERROR_DIR_NOT_EMPTY});
    EXPECT_EQ(RemoveFolder(L"folder/file"), DWORD{ERROR_DIRECTORY});
    EXPECT_EQ(Delete(L"folder"), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Delete(L"folder/file"), 0u);
    EXPECT_EQ(RemoveFolder(L"folder"), 0u);
    EXPECT_FALSE(Exists(L"folder"));
}

TEST_F(Files, AreMovedAndReplaced) {
    Make(L"a", "A");
    Make(L"b", "B");
    MakeFolder(L"folder");
    EXPECT_EQ(Move(L"a", L"b", 0), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_EQ(Contents(L"b"), "B");
    EXPECT_EQ(Move(L"a", L"a", 0), 0u);
    EXPECT_EQ(Contents(L"a"), "A");
    EXPECT_EQ(Move(L"a", L"folder", MOVEFILE_REPLACE_EXISTING), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(Move(L"a", L"b", MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH), 0u);
    EXPECT_EQ(Contents(L"b"), "A");
    EXPECT_FALSE(Exists(L"a"));
    EXPECT_EQ(Move(L"folder", L"renamed", 0), 0u);
    EXPECT_TRUE(Exists(L"renamed"));
}

TEST(TemporaryPath, EndsWithASeparator) {
    wchar_t path[MAX_PATH + 1];
    const DWORD size = GetTempPathW(MAX_PATH, path);
    ASSERT_GT(size, 0u);
    EXPECT_EQ(std::wstring_view(path).size(), size);
    EXPECT_NE(std::wstring_view(L"/\\").find(path[size - 1]), std::wstring_view::npos);
    EXPECT_EQ(GetTempPathW(size, path), size + 1);
    EXPECT_TRUE(GetFileAttributesW(path) & FILE_ATTRIBUTE_DIRECTORY);
}

TEST(StandardHandles, AreTheSameOnEveryCall) {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    EXPECT_NE(output, nullptr);
    EXPECT_EQ(output, GetStdHandle(STD_OUTPUT_HANDLE));
    EXPECT_EQ(CodeOf(GetStdHandle(5)), DWORD{ERROR_INVALID_HANDLE});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
