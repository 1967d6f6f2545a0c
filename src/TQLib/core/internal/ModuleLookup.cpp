#include "TQLib/core/internal/ModuleLookup.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <vector>

namespace Quellan::Corvel {

namespace {

std::wstring_view WithoutExtension(std::wstring_view name) {
    const std::size_t dot = name.rfind(L'.');
    return dot == std::wstring_view::npos || dot == 0 ? name : name.substr(0, dot);
}

std::vector<HMODULE> LoadedModules() {
    std::vector<HMODULE> modules(64);
    for (;;) {
        const auto size = static_cast<DWORD>(modules.size() * sizeof(HMODULE));
        DWORD needed = 0;
        if (!EnumProcessModules(GetCurrentProcess(), modules.data(), size, &needed))
            ThrowCallFailure(L"TQSysProc::FindLoadedModule");
        modules.resize(needed / sizeof(HMODULE));
        if (needed <= size) return modules;
    }
}

}  // namespace

std::wstring_view WithoutFolder(std::wstring_view path) noexcept {
    const std::size_t slash = path.find_last_of(L"/\\");
    return slash == std::wstring_view::npos ? path : path.substr(slash + 1);
}

TQModule LoadModule(const TQString& name) {
    return About(name, [&] {
        TQModule module = TQModule::Unique(LoadLibraryExW(name.c_str(), nullptr, 0));
        if (!module.IsValid()) ThrowCallFailure(L"TQSysProc::LoadModule");
        return module;
    });
}

HMODULE FindLoadedModule(const TQString& baseName) {
    constexpr const wchar_t* where = L"TQSysProc::FindLoadedModule";
    for (const HMODULE module : Translated(where, &LoadedModules)) {
        wchar_t name[MAX_PATH];
        const DWORD length = GetModuleBaseNameW(GetCurrentProcess(), module, name, MAX_PATH);
        // A module may be unloaded while the list is read.
        if (length == 0 && IsMemoryExhausted(GetLastError())) TQStdExceptions::ThrowMemAllocError(where);
        if (length != 0 && baseName.CompareNoCase(WithoutExtension({name, length})) == 0) return module;
    }
    return nullptr;
}

TQString ModuleFileName(HMODULE module) {
    constexpr const wchar_t* where = L"TQSysProc::ModuleFileName";
    return Translated(where, [&]() -> TQString {
        for (std::vector<wchar_t> path(MAX_PATH);; path.resize(path.size() * 2)) {
            const DWORD length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
            if (length == 0) ThrowCallFailure(where);
            if (length < path.size()) return {path.data(), length};
        }
    });
}

TQString ModuleBaseName(HMODULE module) {
    const TQString path = ModuleFileName(module);
    return TQString(WithoutExtension(WithoutFolder(path.View())));
}

TQString ModuleAt(const void* address) {
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(
            GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
            static_cast<const wchar_t*>(address), &module)) {
        if (IsMemoryExhausted(GetLastError())) TQStdExceptions::ThrowMemAllocError(L"TQSysProc::ModuleAt");
        return {};
    }
    const TQString path = ModuleFileName(module);
    return TQString(WithoutFolder(path.View()));
}

}  // namespace Quellan::Corvel
