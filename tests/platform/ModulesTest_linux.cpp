// What the layer does beyond the platform's documented behaviour, or where Wine does otherwise.
#include "PlatformMessages.h"
#include "TQLib/platform/Win32.h"

#include <array>
#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

constexpr const wchar_t* ModuleWithCode = L"platform_code_module.dll";
constexpr const wchar_t* MessageModule = L"platform_messages.dll";

DWORD LoadFailure(const wchar_t* name, DWORD flags) {
    SetLastError(ERROR_SUCCESS);
    const HMODULE module = LoadLibraryExW(name, nullptr, flags);
    if (!module) return GetLastError();
    FreeLibrary(module);
    return ERROR_SUCCESS;
}

std::filesystem::path TemporaryPath(const char* name) {
    return std::filesystem::temp_directory_path() / (std::to_string(GetCurrentProcessId()) + name);
}

}  // namespace

TEST(LinuxModules, AFileNameThatIsCutIsTerminated) {
    std::array<wchar_t, 5> buffer;  // Wine leaves the terminator out.
    EXPECT_EQ(GetModuleFileNameW(nullptr, buffer.data(), buffer.size()), buffer.size());
    EXPECT_EQ(std::wstring(buffer.data()).size(), buffer.size() - 1);
}

TEST(LinuxModules, AVersionBehindTheNameDoesNotMatter) {
    HMODULE module = nullptr;
    ASSERT_TRUE(GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, L"TQLib.dll", &module));
    HMODULE owner = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const wchar_t*>(&LoadLibraryW), &owner);
    EXPECT_EQ(module, owner);
}

TEST(LinuxModules, TheSystemsOwnAreFoundByTheLoaderUnlessTheSearchIsLimited) {
    EXPECT_EQ(LoadFailure(L"libm.so.6", 0), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(LoadFailure(L"libm.so.6", LOAD_LIBRARY_SEARCH_SYSTEM32), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(LoadFailure(L"libm.so.6", LOAD_LIBRARY_SEARCH_APPLICATION_DIR), DWORD{ERROR_MOD_NOT_FOUND});
    EXPECT_EQ(LoadFailure(ModuleWithCode, LOAD_LIBRARY_SEARCH_APPLICATION_DIR), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(LoadFailure(ModuleWithCode, LOAD_LIBRARY_SEARCH_SYSTEM32), DWORD{ERROR_MOD_NOT_FOUND});
}

TEST(LinuxModules, UnknownFlagsAndFileHandlesAreRefused) {
    EXPECT_EQ(LoadFailure(ModuleWithCode, 0x00000008), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(LoadFailure(ModuleWithCode, 0x00000040), DWORD{ERROR_INVALID_PARAMETER});
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(LoadLibraryExW(ModuleWithCode, INVALID_HANDLE_VALUE, 0), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
}

TEST(LinuxModules, ANamedPipeDoesNotBlockTheSearch) {
    const auto path = TemporaryPath("_pipe.dll");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(LoadFailure(path.wstring().c_str(), 0), DWORD{ERROR_MOD_NOT_FOUND});
    EXPECT_EQ(LoadFailure(path.wstring().c_str(), LOAD_LIBRARY_AS_DATAFILE), DWORD{ERROR_FILE_NOT_FOUND});
    std::filesystem::remove(path);
}

TEST(LinuxModules, OneThatNeedsAMissingFunctionIsToldFromOneThatIsMissing) {
    EXPECT_EQ(LoadFailure(L"platform_unresolved_module.dll", 0), DWORD{ERROR_PROC_NOT_FOUND});
}

TEST(LinuxModules, APinnedOneStays) {
    const HMODULE module = LoadLibraryW(L"platform_messages");
    HMODULE pinned = nullptr;
    EXPECT_TRUE(GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN, MessageModule, &pinned));
    EXPECT_EQ(pinned, module);
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(GetModuleHandleW(MessageModule), module);
}

TEST(LinuxModules, ServeSeveralThreadsAtOnce) {
    constexpr int Threads = 4, Rounds = 50;
    std::vector<std::thread> threads;
    std::atomic<int> found = 0;
    for (int t = 0; t < Threads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < Rounds; ++i) {
                const HMODULE module =
                    LoadLibraryExW(MessageModule, nullptr, t % 2 ? LOAD_LIBRARY_AS_DATAFILE : 0);
                std::array<wchar_t, 100> buffer;
                found += FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE, module, MSG_ENGLISH_ONLY, 0,
                                        buffer.data(), buffer.size(), nullptr) == 19;
                FreeLibrary(module);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(found, Threads * Rounds);
}
