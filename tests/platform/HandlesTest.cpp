#include "PlatformTest.h"
#include "platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

class Handles : public testing::Test {
  protected:
    HANDLE Open() const {
        return CreateFileW(m_folder.Path().c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    }

    static DWORD Use(HANDLE handle) {
        DWORD flags;
        return CodeOf(GetHandleInformation(handle, &flags));
    }

    TemporaryFolder m_folder;
};

TEST_F(Handles, AreInvalidOnceClosed) {
    const HANDLE handle = Open();
    ASSERT_EQ(Use(handle), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(handle)), 0u);
    EXPECT_EQ(Use(handle), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(CloseHandle(handle)), DWORD{ERROR_INVALID_HANDLE});
}

TEST_F(Handles, AreInvalidWhenTheyNeverWereOne) {
    // Values no longer than 32 bits: the platform itself looks no further.
    for (const ULONG_PTR value : {ULONG_PTR{0}, ULONG_PTR{0x7FFFFFF0}, ULONG_PTR{0x6FFFFFFC}}) {
        EXPECT_EQ(CodeOf(CloseHandle(reinterpret_cast<HANDLE>(value))), DWORD{ERROR_INVALID_HANDLE}) << value;
    }
}

TEST_F(Handles, ThatStandForTheCallerNeedNoClosing) {
    EXPECT_EQ(CodeOf(CloseHandle(GetCurrentProcess())), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(GetCurrentThread())), 0u);
}

TEST_F(Handles, OfASearchAreClosedByTheirOwnCallAlone) {
    WIN32_FIND_DATAW data;
    const HANDLE find = FindFirstFileW((m_folder / L"*").c_str(), &data);
    const HANDLE file = Open();
    EXPECT_EQ(CodeOf(CloseHandle(find)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(FindClose(file)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(FindClose(find)), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(file)), 0u);
}

}  // namespace
}  // namespace Quellan::Corvel::Test
