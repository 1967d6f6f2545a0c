#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQEvent.h"

namespace Quellan::Corvel {

namespace {

using CompareObjects = BOOL(WINAPI*)(HANDLE, HANDLE);

// Only kernelbase.dll exports it, and the compiler's import library for kernelbase would take over the
// imports from kernel32.dll too.
CompareObjects FindCompareObjects() noexcept {
    const HMODULE module = GetModuleHandleW(L"kernelbase.dll");
    const FARPROC function = module ? GetProcAddress(module, "CompareObjectHandles") : nullptr;
    return reinterpret_cast<CompareObjects>(reinterpret_cast<void*>(function));
}

}  // namespace

bool operator==(const TQEvent& left, const TQEvent& right) noexcept {
    static const CompareObjects compare = FindCompareObjects();
    if (left.Handle() == right.Handle()) return true;
    const _TQLastErrorKeeper keeper;
    return compare && compare(left.Handle(), right.Handle());
}

}  // namespace Quellan::Corvel
