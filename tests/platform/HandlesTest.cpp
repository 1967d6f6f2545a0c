#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {
namespace {

class Handles : public testing::Test {
  protected:
    HANDLE Open() const {
        return CreateFileW(m_folder.Path().c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    }

    TemporaryFolder m_folder;
};

TEST_F(Handles, ThatNeverWereAreInvalidAndThoseThatStandForTheCallerNeedNoClosing) {
    // Values no longer than 32 bits: the platform itself looks no further.
    for (const ULONG_PTR value : {ULONG_PTR{0}, ULONG_PTR{0x7FFFFFF0}, ULONG_PTR{0x6FFFFFFC}})
        EXPECT_EQ(CodeOf(CloseHandle(reinterpret_cast<HANDLE>(value))), DWORD{ERROR_INVALID_HANDLE}) << value;
    for (const HANDLE own : {GetCurrentProcess(), GetCurrentThread()})
        EXPECT_EQ(CodeOf(CloseHandle(own)), 0u);
}

TEST(GenericRights, StandForThoseOfEachKind) {
    const HANDLE event = CreateEventW(nullptr, TRUE, TRUE, L"Handles.Event");
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Handles.Mutex");
    const HANDLE semaphore = CreateSemaphoreW(nullptr, 100, 1000, L"Handles.Semaphore");
    const DWORD denied = ERROR_ACCESS_DENIED;
    struct Case {
        DWORD access, codeOfWait, codeOfChange;
    };
    for (const auto& [access, codeOfWait, codeOfChange] : {Case{GENERIC_ALL, 0, 0},
                                                           {MAXIMUM_ALLOWED, 0, 0},
                                                           {GENERIC_EXECUTE, 0, denied},
                                                           {GENERIC_WRITE, denied, 0},
                                                           {GENERIC_READ, denied, denied}}) {
        HANDLE copy = nullptr;
        const HANDLE process = GetCurrentProcess();
        EXPECT_TRUE(DuplicateHandle(process, event, process, &copy, access, FALSE, 0));
        for (const HANDLE each : {copy, OpenEventW(access, FALSE, L"Handles.Event")}) {
            EXPECT_EQ(CodeOf(WaitForSingleObject(each, 0) == WAIT_OBJECT_0), codeOfWait) << access;
            EXPECT_EQ(CodeOf(SetEvent(each)), codeOfChange) << access;
            CloseHandle(each);
        }
        const HANDLE opened = OpenSemaphoreW(access, FALSE, L"Handles.Semaphore");
        EXPECT_EQ(CodeOf(WaitForSingleObject(opened, 0) == WAIT_OBJECT_0), codeOfWait) << access;
        EXPECT_EQ(CodeOf(ReleaseSemaphore(opened, 1, nullptr)), codeOfChange) << access;
        CloseHandle(opened);
        const HANDLE lock = OpenMutexW(access, FALSE, L"Handles.Mutex");
        EXPECT_EQ(CodeOf(WaitForSingleObject(lock, 0) == WAIT_OBJECT_0), codeOfWait) << access;
        CloseHandle(lock);
        EXPECT_EQ(ReleaseMutex(mutex), !codeOfWait);
    }
    EXPECT_EQ(CodeOf(OpenEventW(GENERIC_ALL, FALSE, L"Handles.None")), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(CodeOf(SetEvent(mutex)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(ResetEvent(nullptr)), DWORD{ERROR_INVALID_HANDLE});
    const DWORD codeOfNone = OnWine() ? 0 : denied;  // where such a handle is of no use
    EXPECT_EQ(CodeOf(OpenEventW(0, FALSE, L"Handles.Event")), codeOfNone);
    for (const HANDLE each : {event, mutex, semaphore})
        CloseHandle(each);
}

TEST_F(Handles, OfFilesAreDuplicatedWithWhatTheyGrant) {
    const HANDLE process = GetCurrentProcess();
    const HANDLE file =
        CreateFileW((m_folder / L"file").c_str(), GENERIC_READ, 0, nullptr, CREATE_NEW, 0, nullptr);
    HANDLE copy = nullptr;
    ASSERT_EQ(CodeOf(DuplicateHandle(process, file, process, &copy, GENERIC_READ, FALSE, 0)), 0u);
    char byte;
    DWORD got;
    EXPECT_EQ(CodeOf(ReadFile(copy, &byte, 1, &got, nullptr)), 0u);
    CloseHandle(copy);
    const DWORD codeOfMore = OnWine() ? 0 : ERROR_ACCESS_DENIED;  // where the handle cannot write
    EXPECT_EQ(CodeOf(DuplicateHandle(process, file, process, &copy, GENERIC_WRITE, FALSE, 0)), codeOfMore);
    CloseHandle(file);
}

TEST_F(Handles, OfASearchAreClosedByTheirOwnCallAlone) {
    WIN32_FIND_DATAW data;
    const HANDLE find = FindFirstFileW((m_folder / L"*").c_str(), &data);
    const HANDLE file = Open();
    EXPECT_EQ(CodeOf(CloseHandle(find)), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(CodeOf(FindClose(file)), DWORD{ERROR_INVALID_HANDLE});
    if (!OnWine()) {  // which takes the handle of a search for an address
        LARGE_INTEGER size;
        EXPECT_EQ(CodeOf(FindNextFileW(file, &data)), DWORD{ERROR_INVALID_HANDLE});
        EXPECT_EQ(CodeOf(GetFileSizeEx(find, &size)), DWORD{ERROR_INVALID_HANDLE});
    }
    EXPECT_EQ(CodeOf(FindClose(find)), 0u);
    EXPECT_EQ(CodeOf(CloseHandle(file)), 0u);
    DWORD flags;
    EXPECT_EQ(CodeOf(GetHandleInformation(file, &flags)), DWORD{ERROR_INVALID_HANDLE});
}

}  // namespace
}  // namespace Quellan::Corvel::Test
