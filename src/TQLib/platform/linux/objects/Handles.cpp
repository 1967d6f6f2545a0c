#include "TQLib/platform/linux/objects/Handles.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/files/Files.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"

namespace Quellan::Platform {

namespace {

// A second handle of an object, from one that grants `granted`. 5 for a right that it cannot have.
DWORD Duplicate(std::shared_ptr<Object> object, DWORD granted, DWORD access, DWORD options,
                HANDLE& target) noexcept {
    if (options & DUPLICATE_SAME_ACCESS) return InsertHandle(std::move(object), granted, target);
    const ObjectKind& kind = object->KindOf();
    const DWORD rights = MapRights(kind.rights, access);
    // A file is open for what its first handle asked for; rights to its attributes come with every handle.
    constexpr DWORD OfOpening = FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE;
    const DWORD refused = kind.grantsNoMore ? OfOpening & ~granted : 0;
    if (rights & (refused | ~kind.rights.all)) return ERROR_ACCESS_DENIED;
    return InsertHandle(std::move(object), rights, target);
}

DWORD Duplicate(HANDLE source, DWORD access, DWORD options, HANDLE& target) noexcept {
    if (source == GetCurrentProcess()) return ERROR_NOT_SUPPORTED;
    if (source == GetCurrentThread()) {
        Thread* const thread = Thread::Current();
        if (!thread) return ERROR_NOT_ENOUGH_MEMORY;
        return Duplicate(thread->shared_from_this(), THREAD_ALL_ACCESS, access, options, target);
    }
    const HandleUse use(source);
    if (!use.Get()) return ERROR_INVALID_HANDLE;
    return Duplicate(use.Share(), use.Access(), access, options, target);
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

}  // namespace Quellan::Platform
