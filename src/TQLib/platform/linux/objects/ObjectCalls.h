// What the calls for events, mutexes and semaphores have in common.
#pragma once

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/objects/NamedObjects.h"

namespace Quellan::Platform {

inline bool HasText(const wchar_t* name) noexcept {
    return name && *name;
}

// `create` makes an object of this process alone: code and handle. The last error tells of what existed.
template <class Body, class Create>
HANDLE CreateObject(const SECURITY_ATTRIBUTES* attributes, const wchar_t* name, const SharedSetup& setup,
                    DWORD allAccess, Create create) noexcept {
    if (attributes && attributes->bInheritHandle) return Fail(ERROR_NOT_SUPPORTED, HANDLE());
    HANDLE handle = nullptr;
    const DWORD code = HasText(name) ? WithMemory([&]() -> DWORD {
        SharedSetup forOthers = setup;
        if (DWORD refused = SecurityOfNewObject(attributes, forOthers.security)) return refused;
        return NamedHandle<Body>(name, &forOthers, allAccess, handle);
    })
                                     : create(allAccess, handle);
    SetLastError(code);
    return handle;
}

// 5 (ERROR_ACCESS_DENIED) for rights that the kind does not have, and for none.
template <class Body>
HANDLE OpenObject(DWORD access, BOOL inherit, const wchar_t* name) noexcept {
    if (inherit) return Fail(ERROR_NOT_SUPPORTED, HANDLE());
    if (!name) return Fail(ERROR_INVALID_PARAMETER, HANDLE());
    HANDLE handle = nullptr;
    const DWORD code = NamedHandle<Body>(name, nullptr, access, handle);
    if (!handle) return Fail(code, HANDLE());
    const DWORD rights = MapRights(Body::Kind.rights, access);
    if (rights && !(rights & ~Body::Kind.rights.all)) return handle;
    CloseHandleOf(handle, &Body::Kind);
    return Fail(ERROR_ACCESS_DENIED, HANDLE());
}

// Calls `change` with the object of a handle that grants `access`; `change` returns a code.
template <class Body, class Change>
BOOL ChangeObject(HANDLE handle, DWORD access, Change change) noexcept {
    const HandleRef<Body> object(handle);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if ((object.Access() & access) != access) return Fail(ERROR_ACCESS_DENIED, FALSE);
    if (DWORD code = change(*object)) return Fail(code, FALSE);
    return TRUE;
}

}  // namespace Quellan::Platform
