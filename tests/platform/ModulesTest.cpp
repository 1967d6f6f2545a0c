#include "PlatformTest.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <vector>

using namespace Quellan::Corvel::Test;

namespace {

constexpr const wchar_t* CodeModule = L"platform_code_module.dll";
constexpr const wchar_t* MissingModule = L"no_such_module";

std::wstring FileName(HMODULE module) {
    std::array<wchar_t, 1000> buffer;
    const DWORD length = GetModuleFileNameW(module, buffer.data(), buffer.size());
    return {buffer.data(), length};
}

std::wstring BaseName(HMODULE module) {
    std::array<wchar_t, 1000> buffer;
    const DWORD length = GetModuleBaseNameW(GetCurrentProcess(), module, buffer.data(), buffer.size());
    return {buffer.data(), length};
}

bool IsLoaded(const wchar_t* name) {
    return GetModuleHandleW(name) != nullptr;
}

// The handle of a module that was and is no more.
HMODULE FreedModule() {
    const HMODULE module = LoadLibraryW(CodeModule);
    FreeLibrary(module);
    return module;
}

// A file that is no module, whatever its name.
std::wstring TextFile(const TemporaryFolder& folder, const wchar_t* name, std::string_view contents) {
    std::ofstream(std::filesystem::path(folder / name), std::ios::binary) << contents;
    return folder / name;
}

}  // namespace

TEST(Modules, AreFoundBesideTheExecutableAndStayUntilTheyAreFreedAsOftenAsLoaded) {
    const HMODULE first = LoadLibraryW(CodeModule);
    ASSERT_NE(first, nullptr) << GetLastError();
    EXPECT_EQ(LoadLibraryW(L"platform_code_module"), first);
    EXPECT_EQ(LoadLibraryW(FileName(first).c_str()), first);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_EQ(GetModuleHandleW(L"PLATFORM_CODE_MODULE.DLL"), first);
    EXPECT_TRUE(FreeLibrary(first));
    EXPECT_FALSE(IsLoaded(CodeModule));
    EXPECT_EQ(CodeOf(FreeLibrary(first)), DWORD{ERROR_MOD_NOT_FOUND});
}

TEST(Modules, TheirExportsAreFoundByNameAndNobodyElsesAre) {
    const HMODULE module = LoadLibraryW(CodeModule);
    ASSERT_NE(module, nullptr);
    const auto answer =
        reinterpret_cast<int (*)()>(reinterpret_cast<void*>(GetProcAddress(module, "CodeModuleAnswer")));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(CodeOf(GetProcAddress(module, "malloc")), DWORD{ERROR_PROC_NOT_FOUND});
    EXPECT_EQ(CodeOf(GetProcAddress(GetModuleHandleW(nullptr), "CodeModuleAnswer")),
              DWORD{ERROR_PROC_NOT_FOUND});
    EXPECT_TRUE(FreeLibrary(module));
}

TEST(Modules, AMissingOneIsToldFromOneOfAWrongFormat) {
    const TemporaryFolder folder;
    const std::wstring text = TextFile(folder, L"text.dll", std::string(80, 'x')),
                       empty = TextFile(folder, L"empty.dll", "");
    EXPECT_EQ(CodeOf(LoadLibraryW(MissingModule)), DWORD{ERROR_MOD_NOT_FOUND});
    EXPECT_EQ(CodeOf(LoadLibraryW(text.c_str())), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(CodeOf(LoadLibraryExW(MissingModule, nullptr, LOAD_LIBRARY_AS_DATAFILE)),
              DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(CodeOf(LoadLibraryExW(text.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE)),
              DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(CodeOf(LoadLibraryW(nullptr)), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(CodeOf(LoadLibraryW(empty.c_str())), DWORD{ERROR_BAD_EXE_FORMAT});
    EXPECT_EQ(CodeOf(LoadLibraryExW(empty.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE)),
              DWORD{ERROR_FILE_INVALID});
}

TEST(Modules, OnlyTheCodeOfModulesLoadedAsCodeRuns) {
    for (const DWORD flags : {LOAD_LIBRARY_AS_DATAFILE, LOAD_LIBRARY_AS_IMAGE_RESOURCE,
                              LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE}) {
        const HMODULE data = LoadLibraryExW(CodeModule, nullptr, static_cast<DWORD>(flags));
        ASSERT_NE(data, nullptr) << GetLastError() << " with flags " << flags;
        EXPECT_EQ(std::get_new_handler(), nullptr);
        EXPECT_FALSE(IsLoaded(CodeModule));
        EXPECT_EQ(CodeOf(GetProcAddress(data, "CodeModuleAnswer")), DWORD{ERROR_MOD_NOT_FOUND});
        EXPECT_TRUE(FreeLibrary(data));
    }
    const HMODULE code = LoadLibraryW(CodeModule);
    EXPECT_NE(std::get_new_handler(), nullptr);
    EXPECT_TRUE(FreeLibrary(code));
}

TEST(Modules, AWrongHandleIsRecognised) {
    std::array<wchar_t, 10> buffer;
    for (const HMODULE wrong : {FreedModule(), reinterpret_cast<HMODULE>(&buffer)}) {
        EXPECT_EQ(CodeOf(FreeLibrary(wrong)), DWORD{ERROR_MOD_NOT_FOUND});
        EXPECT_EQ(CodeOf(GetModuleFileNameW(wrong, buffer.data(), buffer.size())),
                  DWORD{ERROR_MOD_NOT_FOUND});
        EXPECT_EQ(CodeOf(GetProcAddress(wrong, "CodeModuleAnswer")), DWORD{ERROR_MOD_NOT_FOUND});
        EXPECT_EQ(CodeOf(GetModuleBaseNameW(GetCurrentProcess(), wrong, buffer.data(), buffer.size())),
                  DWORD{ERROR_INVALID_HANDLE});
    }
    EXPECT_EQ(CodeOf(FreeLibrary(nullptr)), DWORD{ERROR_INVALID_HANDLE});
}

TEST(Modules, AHandleFoundWithoutChangeKeepsNothingLoaded) {
    const HMODULE module = LoadLibraryW(CodeModule);
    HMODULE found = nullptr;
    EXPECT_TRUE(GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT, CodeModule, &found));
    EXPECT_EQ(found, module);
    EXPECT_TRUE(GetModuleHandleExW(0, CodeModule, &found));
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_TRUE(IsLoaded(CodeModule)) << "by the handle that was found with a change";
    EXPECT_TRUE(FreeLibrary(found));
    EXPECT_FALSE(IsLoaded(CodeModule));
}

TEST(Modules, AnAddressBelongsToTheModuleThatHoldsIt) {
    constexpr DWORD Flags =
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
    const auto owner = [](const void* address) {
        HMODULE found = nullptr;
        GetModuleHandleExW(Flags, static_cast<const wchar_t*>(address), &found);
        return found;
    };
    static const int here = 1;
    const int onStack = 1;
    const HMODULE module = LoadLibraryW(CodeModule);
    EXPECT_EQ(owner(&here), GetModuleHandleW(nullptr));
    EXPECT_EQ(owner(reinterpret_cast<const void*>(GetProcAddress(module, "CodeModuleAnswer"))), module);
    EXPECT_EQ(owner(&onStack), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_MOD_NOT_FOUND});
    EXPECT_TRUE(FreeLibrary(module));
}

TEST(Modules, AFileNameIsCutToItsBuffer) {
    const std::wstring whole = FileName(nullptr);
    std::vector<wchar_t> buffer(whole.size() + 1, L'#');
    const DWORD size = static_cast<DWORD>(whole.size());
    EXPECT_EQ(GetModuleFileNameW(nullptr, buffer.data(), size + 1), size);
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(GetModuleFileNameW(nullptr, buffer.data(), size), size);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INSUFFICIENT_BUFFER});
    EXPECT_EQ(std::wstring(buffer.data(), size - 1), whole.substr(0, size - 1));
    EXPECT_EQ(CodeOf(GetModuleFileNameW(nullptr, buffer.data(), 0)), DWORD{ERROR_INSUFFICIENT_BUFFER});
}

TEST(Modules, AreEnumeratedWithTheExecutableFirst) {
    const HMODULE module = LoadLibraryW(CodeModule);
    std::array<HMODULE, 500> modules{};
    DWORD needed = 0;
    ASSERT_TRUE(EnumProcessModules(GetCurrentProcess(), modules.data(), sizeof modules, &needed));
    const auto end = modules.begin() + needed / sizeof(HMODULE);
    EXPECT_EQ(modules.front(), GetModuleHandleW(nullptr));
    EXPECT_EQ(std::count(modules.begin(), end, module), 1);
    EXPECT_TRUE(std::any_of(modules.begin(), end,
                            [](HMODULE m) { return BaseName(m).find(L"TQLib") != std::wstring::npos; }));
    EXPECT_TRUE(FreeLibrary(module));
}
