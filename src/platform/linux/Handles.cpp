#include "platform/linux/Handles.h"

#include "platform/linux/internal/Fail.h"
#include "platform/linux/internal/HandleTable.h"

using namespace Quellan::Corvel::Platform;

BOOL CloseHandle(HANDLE handle) noexcept {
    if (IsPseudoHandle(handle)) return TRUE;
    if (DWORD code = CloseHandleOf(handle, nullptr)) return Fail(code, FALSE);
    return TRUE;
}

BOOL GetHandleInformation(HANDLE handle, DWORD* flags) noexcept {
    if (!HandleUse(handle).Get()) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!flags) return Fail(ERROR_NOACCESS, FALSE);
    *flags = 0;
    return TRUE;
}
