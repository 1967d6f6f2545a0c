#include "TQLib/platform/ProcessEnd.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Platform {

namespace {

template <class Function>
Function* FunctionOf(const wchar_t* module, const char* name) noexcept {
    const FARPROC address = GetProcAddress(GetModuleHandleW(module), name);
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(address));
}

}  // namespace

bool CallAtExit(void (*function)()) noexcept {
    constexpr DWORD Pinned = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN;
    HMODULE self;
    const auto inThisModule = reinterpret_cast<const wchar_t*>(reinterpret_cast<void*>(&CallAtExit));
    if (!GetModuleHandleExW(Pinned, inThisModule, &self)) return false;
    const auto atExit = FunctionOf<int(void (*)())>(L"msvcrt.dll", "atexit");
    return atExit && atExit(function) == 0;
}

bool AreOtherThreadsGone() noexcept {
    static const auto isShutdown = FunctionOf<BOOLEAN()>(L"ntdll.dll", "RtlDllShutdownInProgress");
    return isShutdown && isShutdown();
}

}  // namespace Quellan::Platform
