#include "platform/linux/Handles.h"

#include "platform/linux/Process.h"
#include "platform/linux/internal/Fail.h"
#include "platform/linux/internal/FaultPoint.h"
#include "platform/linux/internal/HandleTable.h"
#include "platform/linux/internal/ThreadObject.h"

using namespace Quellan::Corvel::Platform;

namespace {

DWORD Duplicate(HANDLE source, DWORD access, DWORD options, HANDLE& target) noexcept {
    const bool sameAccess = options & DUPLICATE_SAME_ACCESS;
    if (source == GetCurrentProcess()) return ERROR_NOT_SUPPORTED;
    if (source == GetCurrentThread()) {
        Thread* const thread = Thread::Current();
        if (!thread) return ERROR_NOT_ENOUGH_MEMORY;
        return InsertHandle(thread->shared_from_this(), sameAccess ? THREAD_ALL_ACCESS : access, target);
    }
    const HandleUse use(source);
    if (!use.Get()) return ERROR_INVALID_HANDLE;
    return InsertHandle(use.Share(), sameAccess ? use.Access() : access, target);
}

}  // namespace

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

BOOL DuplicateHandle(HANDLE fromProcess, HANDLE source, HANDLE toProcess, HANDLE* target, DWORD access,
                     BOOL inherit, DWORD options) noexcept {
    if (DWORD code = FaultDue("DuplicateHandle")) return Fail(code, FALSE);
    if (fromProcess != GetCurrentProcess() || toProcess != GetCurrentProcess() || inherit)
        return Fail(ERROR_NOT_SUPPORTED, FALSE);
    if (!target || options & ~(DUPLICATE_CLOSE_SOURCE | DUPLICATE_SAME_ACCESS))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = Duplicate(source, access, options, *target);
    if (options & DUPLICATE_CLOSE_SOURCE) CloseHandleOf(source, nullptr);
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL CompareObjectHandles(HANDLE first, HANDLE second) noexcept {
    if (IsPseudoHandle(first) || IsPseudoHandle(second)) return first == second;
    const HandleUse firstUse(first), secondUse(second);
    if (!firstUse.Get() || !secondUse.Get()) return Fail(ERROR_INVALID_HANDLE, FALSE);
    return firstUse.Get() == secondUse.Get();
}
