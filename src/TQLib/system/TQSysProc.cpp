#include "TQLib/system/TQSysProc.h"

#include "TQLib/core/internal/CallFailure.h"
#include "TQLib/core/internal/ModuleLookup.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/security/SecID.h"
#include "TQLib/system/internal/CurrentUser.h"

namespace Quellan::Corvel {

TQStringArray TQSysProc::CommandLine() {
    int count = 0;
    const wchar_t* const line = GetCommandLineW();
    const TQUniqueHandle<_TQLocalMemClose> memory(line ? CommandLineToArgvW(line, &count) : nullptr);
    if (!memory.IsValid()) ThrowCallFailure(L"TQSysProc::CommandLine");
    const wchar_t* const* const arguments = static_cast<wchar_t**>(memory.Get());
    TQStringArray result;
    for (int i = 0; i < count; ++i)
        result.Add(TQString(arguments[i]));
    return result;
}

Sarvek::SecID TQSysProc::CurrentUser() {
    return Sarvek::SecID(UserBlock().Sid());
}

HMODULE TQSysProc::GetAppModule() noexcept {
    return GetModuleHandleW(nullptr);
}

TQString TQSysProc::ModuleName(HMODULE module) {
    const TQString path = Corvel::ModuleFileName(module);
    return TQString(WithoutFolder(path.View()));
}

TQModule TQSysProc::LoadModule(const TQString& name) {
    return Corvel::LoadModule(name);
}

HMODULE TQSysProc::FindLoadedModule(const TQString& baseName) {
    return Corvel::FindLoadedModule(baseName);
}

TQString TQSysProc::ModuleFileName(HMODULE module) {
    return Corvel::ModuleFileName(module);
}

TQString TQSysProc::ModuleBaseName(HMODULE module) {
    return Corvel::ModuleBaseName(module);
}

TQString TQSysProc::ModuleAt(const void* address) {
    return Corvel::ModuleAt(address);
}

}  // namespace Quellan::Corvel
