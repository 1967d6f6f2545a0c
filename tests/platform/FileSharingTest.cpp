#include "PlatformTest.h"
#include "TQLib/platform/OpenFiles.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "support/Worker.h"

#include <atomic>

namespace Quellan::Corvel::Test {
namespace {

using Handle = TQHandle<_TQFileHandleClose>;

constexpr DWORD Read = FILE_SHARE_READ;
constexpr DWORD Write = FILE_SHARE_WRITE;
constexpr DWORD Delete = FILE_SHARE_DELETE;
constexpr DWORD All = Read | Write | Delete;

class FileSharing : public testing::Test {
  protected:
    FileSharing() { Handle(Open(GENERIC_WRITE, All, CREATE_NEW)); }

    HANDLE Open(DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) const {
        return CreateFileW(m_path.c_str(), access, share, nullptr, disposition, 0, nullptr);
    }
    DWORD CodeOfOpening(DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) const {
        const Handle opened(Open(access, share, disposition));
        return opened ? 0 : GetLastError();
    }
    LONGLONG Size() const {
        const Handle file(Open(GENERIC_READ, All));
        LARGE_INTEGER size;
        return GetFileSizeEx(file.Get(), &size) ? size.QuadPart : -1;
    }

    const TemporaryFolder m_folder;
    const std::wstring m_path = m_folder / L"file";
};

constexpr DWORD Violation = ERROR_SHARING_VIOLATION;

TEST_F(FileSharing, GoesByWhatEachHandleDoesAndGrants) {
    struct Case {
        DWORD access, share, secondAccess, secondShare, code;
    };
    for (const Case& each : {Case{GENERIC_READ, Read, GENERIC_READ, Read, 0},
                             {GENERIC_READ, Read, GENERIC_WRITE, All, Violation},
                             {GENERIC_READ, All, GENERIC_WRITE, Write, Violation},
                             {GENERIC_READ, Read | Write, GENERIC_WRITE, Read, 0},
                             {GENERIC_WRITE, Read | Write, GENERIC_WRITE, Read | Write, 0},
                             {GENERIC_WRITE, 0, GENERIC_READ, All, Violation},
                             {GENERIC_READ, Read | Write, DELETE, All, Violation},
                             {GENERIC_READ, All, DELETE, Read, 0},
                             {DELETE, All, GENERIC_READ, Read | Write, Violation},
                             {GENERIC_WRITE, 0, FILE_READ_ATTRIBUTES, 0, 0},
                             {FILE_READ_ATTRIBUTES, 0, GENERIC_WRITE, 0, 0}}) {
        const Handle first(Open(each.access, each.share));
        ASSERT_TRUE(first.IsValid());
        EXPECT_EQ(CodeOfOpening(each.secondAccess, each.secondShare), each.code)
            << std::hex << each.access << " sharing " << each.share << ", then " << each.secondAccess
            << " sharing " << each.secondShare;
    }
}

TEST_F(FileSharing, KeepsFilesFromBeingMovedAndDeleted) {
    const std::wstring other = m_folder / L"other";
    Handle holder(Open(GENERIC_READ, Read | Write));
    EXPECT_EQ(CodeOf(MoveFileExW(m_path.c_str(), other.c_str(), 0)), Violation);
    EXPECT_EQ(CodeOf(DeleteFileW(m_path.c_str())), Violation);
    ASSERT_TRUE(Handle(CreateFileW(other.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr)));
    EXPECT_EQ(CodeOf(MoveFileExW(other.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING)),
              DWORD{ERROR_ACCESS_DENIED});
    holder.Close();
    EXPECT_EQ(CodeOf(MoveFileExW(other.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING)), 0u);
    const Handle sharing(Open(GENERIC_READ, All));
    EXPECT_EQ(CodeOf(MoveFileExW(m_path.c_str(), other.c_str(), 0)), 0u);
}

TEST_F(FileSharing, KeepsAFileWhereItWasOpenedWhoeverMovesItMeanwhile) {
    constexpr int Rounds = 5000;
    const std::wstring other = m_folder / L"other", third = m_folder / L"third";
    std::atomic<bool> isOver = false;
    Worker mover([&] {
        while (!isOver) {
            MoveFileExW(m_path.c_str(), other.c_str(), 0);
            MoveFileExW(other.c_str(), m_path.c_str(), 0);
        }
    });
    int opened = 0;
    while (opened < Rounds && !HasFailure()) {
        const Handle file(Open(GENERIC_READ, Read | Write));
        if (!file) continue;
        ++opened;
        // Had it been moved, there would be nothing of this name.
        EXPECT_EQ(CodeOf(MoveFileExW(m_path.c_str(), third.c_str(), 0)), Violation) << "opening " << opened;
    }
    isOver = true;
}

class FileLocks : public FileSharing {
  protected:
    HANDLE Opened() const { return Open(GENERIC_READ | GENERIC_WRITE, All); }
    static DWORD Lock(const Handle& file, DWORD offset, DWORD size) {
        return CodeOf(LockFile(file.Get(), offset, 0, size, 0));
    }
    static DWORD Unlock(const Handle& file, DWORD offset, DWORD size) {
        return CodeOf(UnlockFile(file.Get(), offset, 0, size, 0));
    }

    const Handle m_first{Opened()};
    const Handle m_second{Opened()};
};

TEST_F(FileLocks, KeepOverlappingOnesOut) {
    EXPECT_EQ(Lock(m_first, 10, 5), 0u);
    for (const Handle& file : {m_first, m_second}) {
        EXPECT_EQ(Lock(file, 14, 1), DWORD{ERROR_LOCK_VIOLATION});
        EXPECT_EQ(Lock(file, 5, 100), DWORD{ERROR_LOCK_VIOLATION});
        EXPECT_EQ(Lock(file, 15, 5), 0u);
        EXPECT_EQ(Lock(file, 5, 5), 0u);
        EXPECT_EQ(Unlock(file, 15, 5), 0u);
        EXPECT_EQ(Unlock(file, 5, 5), 0u);
    }
    EXPECT_EQ(Unlock(m_first, 10, 5), 0u);
    EXPECT_EQ(Lock(m_second, 14, 1), 0u);
}

TEST_F(FileLocks, EndAsTheyBegan) {
    const DWORD notLocked = OnWine() ? ERROR_LOCK_VIOLATION : ERROR_NOT_LOCKED;  // Wine has a code of its own
    ASSERT_EQ(Lock(m_first, 10, 5), 0u);
    for (const auto& [offset, size] : {std::pair<DWORD, DWORD>{10, 4}, {11, 4}, {10, 6}, {20, 1}})
        EXPECT_EQ(Unlock(m_first, offset, size), notLocked);
    EXPECT_EQ(Unlock(m_second, 10, 5), notLocked);
    EXPECT_EQ(Unlock(m_first, 10, 5), 0u);
    EXPECT_EQ(Unlock(m_first, 10, 5), notLocked);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
