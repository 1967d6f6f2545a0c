#include "TQLib/text/memory/TQHandle.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

namespace {

// Null where it is refused.
HANDLE DuplicateHere(HANDLE handle) noexcept {
    const HANDLE process = GetCurrentProcess();
    HANDLE copy = nullptr;
    return DuplicateHandle(process, handle, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS) ? copy : nullptr;
}

}  // namespace

_TQLastErrorKeeper::_TQLastErrorKeeper() noexcept : m_code(GetLastError()) {}
_TQLastErrorKeeper::~_TQLastErrorKeeper() {
    SetLastError(m_code);
}

void _TQKernelHandleClose::Close(HANDLE handle) noexcept {
    CloseHandle(handle);
}
HANDLE _TQKernelHandleClose::Duplicate(HANDLE handle) noexcept {
    return DuplicateHere(handle);
}
void _TQFileHandleClose::Close(HANDLE handle) noexcept {
    CloseHandle(handle);
}
HANDLE _TQFileHandleClose::Duplicate(HANDLE handle) noexcept {
    return DuplicateHere(handle);
}
void _TQFindHandleClose::Close(HANDLE handle) noexcept {
    FindClose(handle);
}
void _TQModuleClose::Close(HMODULE handle) noexcept {
    FreeLibrary(handle);
}
void _TQLocalMemClose::Close(void* handle) noexcept {
    LocalFree(handle);
}
void _TQEventSourceClose::Close(HANDLE handle) noexcept {
    DeregisterEventSource(handle);
}
void _TQRegKeyClose::Close(HKEY handle) noexcept {
    RegCloseKey(handle);
}

}  // namespace Quellan::Corvel
