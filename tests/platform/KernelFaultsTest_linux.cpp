#include "PlatformTest.h"
#include "TQLib/log/TQLog.h"
#include "TQLib/platform/SharedFlush.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/files/RangeLocks.h"
#include "support/FailKernelCall_linux.h"
#include "support/ReadBytes.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace Quellan::Corvel::Test {
namespace {

using Path = std::filesystem::path;

HANDLE Open(const Path& path, DWORD access, DWORD disposition) {
    return CreateFileW(path.wstring().c_str(), access, 0, nullptr, disposition, 0, nullptr);
}

// Whatever the kernel refuses meanwhile, nobody takes a file from whoever has it for himself, and what was to
// take its place stays where it was.
TEST(KernelFaults, TakeNoFileFromItsHolder) {
    const TemporaryFolder folder;
    const Path held(folder / L"held"), other(folder / L"other");
    std::ofstream(held) << "held";
    std::ofstream(other) << "other";
    const HANDLE holder = Open(held, GENERIC_READ, OPEN_EXISTING);
    ASSERT_NE(holder, INVALID_HANDLE_VALUE);
    const auto isRefused = [&](BOOL (*operation)(const std::wstring& held, const std::wstring& other),
                               int error, DWORD code) {
        SweepKernelCalls(
            error,
            [&] {
                const BOOL done = operation(held.wstring(), other.wstring());
                const DWORD refused = GetLastError();
                EXPECT_TRUE(!done && (refused == code || refused == ERROR_SHARING_VIOLATION ||
                                      refused == ERROR_ACCESS_DENIED))
                    << (done ? "done" : "refused with ") << refused;
            },
            [&](unsigned) {
                EXPECT_EQ(ReadBytes(held), "held");
                EXPECT_EQ(ReadBytes(other), "other");
            });
    };
    for (const auto& [error, code] : {std::pair<int, DWORD>{EMFILE, ERROR_TOO_MANY_OPEN_FILES},
                                      {ENFILE, ERROR_TOO_MANY_OPEN_FILES},
                                      {ENOMEM, ERROR_NOT_ENOUGH_MEMORY},
                                      {EACCES, ERROR_ACCESS_DENIED},
                                      {EIO, ERROR_IO_DEVICE}}) {
        isRefused([](auto& file, auto&) { return DeleteFileW(file.c_str()); }, error, code);
        isRefused([](auto& file,
                     auto& to) { return MoveFileExW(file.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING); },
                  error, code);
        isRefused([](auto& to,
                     auto& file) { return MoveFileExW(file.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING); },
                  error, code);
        isRefused(
            [](auto& file, auto&) {
                const HANDLE opened = Open(file, GENERIC_WRITE, CREATE_ALWAYS);
                return BOOL{opened != INVALID_HANDLE_VALUE && CloseHandle(opened)};
            },
            error, code);
    }
    CloseHandle(holder);
}

// A call that fails for want of memory leaves the contents of a file that it was to empty, and no file that
// it made.
TEST(KernelFaults, LoseNoContentsForWantOfMemory) {
    const TemporaryFolder folder;
    const Path kept(folder / L"kept"), made(folder / L"made");
    unsigned failures = 0;
    for (const DWORD disposition : {CREATE_ALWAYS, CREATE_NEW}) {
        const std::wstring name = (disposition == CREATE_NEW ? made : kept).wstring();
        bool fired = true;
        for (unsigned nth = 1; fired; ++nth) {
            std::filesystem::remove(made);
            std::ofstream(kept) << "kept";
            HANDLE handle;
            {
                const FailAllocation fault(nth);
                handle = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, disposition, 0, nullptr);
                fired = fault.Fired();
            }
            if (handle != INVALID_HANDLE_VALUE && CloseHandle(handle)) continue;
            ++failures;
            EXPECT_EQ(ReadBytes(kept), "kept");
            EXPECT_FALSE(std::filesystem::exists(made));
        }
    }
    EXPECT_GE(failures, 2u);
}

// A kernel that has no more room for locks has given none, and one that was interrupted is asked again.
TEST(KernelFaults, AreNoLocks) {
    const TemporaryFolder folder;
    const Path path(folder / L"file");
    std::ofstream(path) << "text";
    {
        const FailKernelCall fault("fcntl", ENOLCK, FailKernelCall::EveryCall);
        EXPECT_EQ(CodeOf(Open(path, GENERIC_READ, OPEN_EXISTING)), ERROR_GEN_FAILURE);
    }
    bool fired = true;
    for (unsigned nth = 1; fired; ++nth) {
        SCOPED_TRACE("interrupted in call " + std::to_string(nth));
        const FailKernelCall fault("fcntl", EINTR, nth);
        const HANDLE file = Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
        EXPECT_EQ(CodeOf(file), 0u);
        EXPECT_EQ(CodeOf(LockFile(file, 10, 0, 5, 0)), 0u);
        EXPECT_EQ(CodeOf(UnlockFile(file, 10, 0, 5, 0)), 0u);
        {
            const Platform::Descriptor other(open(path.c_str(), O_RDWR | O_CLOEXEC));
            Platform::RangeLocks locks;
            EXPECT_EQ(locks.Lock(other.Get(), 10, 5, 0), 0u);
        }
        fired = fault.Fired();
        CloseHandle(file);
    }
    const HANDLE file = Open(path, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
    {
        const FailKernelCall fault("fcntl", ENOLCK, FailKernelCall::EveryCall);
        EXPECT_EQ(CodeOf(LockFile(file, 10, 0, 5, 0)), ERROR_GEN_FAILURE);
    }
    EXPECT_EQ(CodeOf(LockFile(file, 10, 0, 5, 0)), 0u);
    CloseHandle(file);
}

// Calls of the kernel are what opening a file costs. The closing of its descriptor comes on top.
TEST(KernelCalls, OfFilesAreFew) {
    const TemporaryFolder folder;
    const std::wstring path = folder / L"file";
    std::ofstream{Path(path)} << "text";
    const auto calls = [](auto operation) {
        const FailKernelCall counter(nullptr, 0, 0);
        operation();
        return counter.Calls();
    };
    struct Case {
        DWORD access, share;
        unsigned calls;
    };
    for (const Case& each : {Case{GENERIC_READ, FILE_SHARE_READ, 8},
                             {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, 9},
                             {GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, 8},
                             {GENERIC_READ, 0, 9},
                             {GENERIC_READ | GENERIC_WRITE, 0, 11},
                             {GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, 11}}) {
        SCOPED_TRACE(each.share);
        char text[100];
        DWORD got = 0;
        EXPECT_LE(calls([&] {
                      const HANDLE file = CreateFileW(path.c_str(), each.access, each.share, nullptr,
                                                      OPEN_EXISTING, 0, nullptr);
                      ReadFile(file, text, sizeof text, &got, nullptr);
                      CloseHandle(file);
                  }),
                  each.calls);
        EXPECT_EQ(got, 4u);
    }
    WIN32_FILE_ATTRIBUTE_DATA data;
    LARGE_INTEGER size;
    const HANDLE file = Open(path, GENERIC_READ, OPEN_EXISTING);
    EXPECT_EQ(calls([&] { GetFileAttributesW(path.c_str()); }), 1u);
    EXPECT_EQ(calls([&] { GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data); }), 1u);
    EXPECT_EQ(calls([&] { GetFileSizeEx(file, &size); }), 1u);
    CloseHandle(file);
}

TEST(KernelFaults, ChangeNoPages) {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    const SIZE_T page = info.dwPageSize;
    auto* const pages = static_cast<char*>(VirtualAlloc(nullptr, 3 * page, MEM_RESERVE, PAGE_READWRITE));
    const auto fails = [](const char* call, auto operation) {
        const FailKernelCall fault(call, ENOMEM);
        return !operation();
    };
    DWORD old = 0;
    EXPECT_TRUE(fails("mprotect", [&] { return VirtualAlloc(pages, 2 * page, MEM_COMMIT, PAGE_READWRITE); }));
    EXPECT_EQ(CodeOf(VirtualProtect(pages, page, PAGE_READONLY, &old)), ERROR_INVALID_ADDRESS);
    ASSERT_TRUE(VirtualAlloc(pages, 2 * page, MEM_COMMIT, PAGE_READWRITE));
    *pages = 'x';
    EXPECT_TRUE(fails("mprotect", [&] { return VirtualProtect(pages, 2 * page, PAGE_READONLY, &old); }));
    EXPECT_TRUE(fails("mmap", [&] { return VirtualFree(pages, page, MEM_DECOMMIT); }));
    EXPECT_EQ(CodeOf(VirtualProtect(pages, page, PAGE_READWRITE, &old)), 0u);
    EXPECT_EQ(old, PAGE_READWRITE);
    EXPECT_EQ(*pages, 'x');
    ASSERT_TRUE(VirtualLock(pages, page));
    EXPECT_TRUE(fails("mlock", [&] { return VirtualLock(pages, 2 * page); }));
    EXPECT_EQ(CodeOf(VirtualUnlock(pages, page)), 0u);
    EXPECT_EQ(CodeOf(VirtualUnlock(pages + page, page)), ERROR_NOT_LOCKED);
    EXPECT_TRUE(VirtualFree(pages, 0, MEM_RELEASE));
}

TEST(KernelFaults, LeaveAProcessor) {
    const FailKernelCall fault("sched_getaffinity", EINVAL);  // as with more of them than the set holds
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    EXPECT_EQ(info.dwNumberOfProcessors, static_cast<DWORD>(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_NE(info.dwActiveProcessorMask, 0u);
}

// What the kernel refuses leaves no page behind that nobody has, and none that cannot be written.
TEST(KernelFaults, LeaveAPageOfRecordsOrNone) {
    const TemporaryFolder folder;
    const EnvironmentVariable root(L"TQLIB_ROOT", (folder / L"root").c_str());
    const HANDLE file = Open(folder / L"file", GENERIC_READ | GENERIC_WRITE, CREATE_NEW);
    const auto pages = Path(folder / L"root") / "run" / "appends";
    Platform::SharedFlush::Open(file);
    for (const int error : {EMFILE, ENOSPC, ENOMEM, EACCES, EINTR}) {
        unsigned refused = 0;
        std::unique_ptr<Platform::SharedFlush> shared;
        SweepKernelCalls(
            error, [&] { shared = Platform::SharedFlush::Open(file); },
            [&](unsigned) {
                refused += !shared;
                if (shared) {
                    EXPECT_NE(shared->Offer("record"), 0u);
                }
                shared = nullptr;
                Platform::SharedFlush::Open(file);  // whatever was left is nobody's
                EXPECT_TRUE(std::filesystem::is_empty(pages));
            });
        EXPECT_TRUE(refused != 0 || error == EINTR) << error;
    }
    CloseHandle(file);
}

// The lock, where the file is at its name, the record, the lock again. Others that it may take (the process's
// user, where he could have changed) are not seen here.
TEST(KernelCalls, AreFourForARecordOfALogThatNobodyElseWritesTo) {
    const TemporaryFolder folder;
    const TQLogPtr log = TQLog::GetLog((folder / L"App.tlg").c_str(), 0);
    log->AddMsg(L"the first", TQLogLevel::Trace);
    for (int i = 0; i < 4; ++i) {
        const FailKernelCall counted(nullptr, 0, 0);
        log->AddMsg(L"another", TQLogLevel::Trace);
        EXPECT_EQ(counted.Calls(), 4u);
    }
}

}  // namespace
}  // namespace Quellan::Corvel::Test
