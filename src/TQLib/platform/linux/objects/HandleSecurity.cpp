#include "TQLib/platform/linux/accounts/AccountIds.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/files/FileObject.h"
#include "TQLib/platform/linux/files/FileSecurity.h"
#include "TQLib/platform/linux/objects/Handles.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"

#include <algorithm>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

// Null for what names no file.
const FileObject* AsFile(const Object& object) noexcept {
    return &object.KindOf() == &FileObject::Kind ? static_cast<const FileObject*>(&object) : nullptr;
}

// Null for what has no name.
SharedObject* AsShared(const Object& object) noexcept {
    return object.KindOf().waitable ? static_cast<const Waitable&>(object).Shared() : nullptr;
}

DWORD SecurityOfObject(const Object& object, FileSecurity& security) {
    const DWORD all = object.KindOf().rights.all;
    if (all == 0) return ERROR_NOT_SUPPORTED;
    if (const FileObject* const file = AsFile(object)) return SecurityOf(file->Fd(), security);
    const SharedObject* const shared = AsShared(object);
    std::vector<BYTE> block;
    if (shared)
        if (DWORD code = shared->Security(block)) return code;
    if (!block.empty()) {
        if (DWORD code = ParseDescriptor(block, security)) return code;
        const auto isKept = [](const AccessEntry& entry) { return HasSimpleLayout(entry.type); };
        return !security.list || std::ranges::all_of(*security.list, isKept) ? ERROR_SUCCESS
                                                                             : ERROR_NOT_SUPPORTED;
    }
    security.owner = SidOfAccount({.isGroup = false, .id = shared ? shared->User() : ProcessUser()});
    security.group = SidOfAccount({.isGroup = true, .id = getegid()});
    security.control = SE_DACL_PRESENT;
    security.hasList = true;
    security.list.emplace();
    if (security.owner) security.list->push_back({ACCESS_ALLOWED_ACE_TYPE, 0, all, *security.owner});
    return ERROR_SUCCESS;
}

}  // namespace

BOOL GetKernelObjectSecurity(HANDLE handle, SECURITY_INFORMATION wanted, PSECURITY_DESCRIPTOR descriptor,
                             DWORD size, DWORD* needed) noexcept {
    if (DWORD code = FaultDue("GetKernelObjectSecurity")) return Fail(code, FALSE);
    if (!needed) return Fail(ERROR_NOACCESS, FALSE);
    const HandleUse use(handle);
    if (!use.Get()) return Fail(ERROR_INVALID_HANDLE, FALSE);
    const DWORD code = WithMemory([&] {
        if (AsShared(*use.Get()) && !(use.Access() & READ_CONTROL)) return DWORD{ERROR_ACCESS_DENIED};
        FileSecurity security;
        const DWORD failed = SecurityOfObject(*use.Get(), security);
        return failed ? failed : PutDescriptor(security, wanted, descriptor, size, *needed);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL SetKernelObjectSecurity(HANDLE handle, SECURITY_INFORMATION given,
                             PSECURITY_DESCRIPTOR descriptor) noexcept {
    if (DWORD code = FaultDue("SetKernelObjectSecurity")) return Fail(code, FALSE);
    const HandleUse use(handle);
    if (!use.Get()) return Fail(ERROR_INVALID_HANDLE, FALSE);
    const DWORD code = WithMemory([&] {
        if (SharedObject* const shared = AsShared(*use.Get())) {
            if (!(use.Access() & WRITE_DAC)) return DWORD{ERROR_ACCESS_DENIED};
            if (given != DACL_SECURITY_INFORMATION) return DWORD{ERROR_NOT_SUPPORTED};
            return shared->SetList(descriptor);
        }
        FileSecurity security;
        const FileObject* const file = AsFile(*use.Get());
        if (!file) return DWORD{ERROR_NOT_SUPPORTED};
        const DWORD failed = ReadDescriptor(descriptor, security);
        return failed ? failed : ApplySecurity(file->Fd(), security, given);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
