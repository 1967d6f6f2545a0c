// Names of events, mutexes and semaphores.
//
// "Local\" names, and those without a prefix, belong to one user; "Global\" names to the machine. Both live
// in folders of the state of this boot (State.h): objects-local of the user, which nobody else may enter, and
// objects-global of root. A process has an object open once, whatever number of handles it has.
#pragma once

#include "TQLib/platform/linux/objects/SharedObject.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"

namespace Quellan::Platform {

// Opens the object of that name or, with `setup`, makes it where it is missing. `access` are the rights that are
// wanted and becomes those that the caller has: all of a new object; of one that was there, what its descriptor
// grants him, and without a descriptor what he wants. 0 with an object that is new, 183 (ERROR_ALREADY_EXISTS) with
// one that was there; otherwise no object and 2 (ERROR_FILE_NOT_FOUND), 3
// (ERROR_PATH_NOT_FOUND) for a backslash after the prefix, 5 (ERROR_ACCESS_DENIED), 6 (ERROR_INVALID_HANDLE)
// for an object of another kind, 123 (ERROR_INVALID_NAME) for a prefix alone, 161 (ERROR_BAD_PATHNAME) for a
// backslash at the beginning, 206 (ERROR_FILENAME_EXCED_RANGE) for more than 260 characters, or what
// SharedObject::Open says.
// An object that others keep locked while they open or close it is waited for, at most 5 s; then 170
// (ERROR_BUSY).
using MakeWaitable = std::shared_ptr<Waitable> (*)(std::unique_ptr<SharedObject>);
DWORD OpenNamed(std::wstring_view name, SharedKind kind, const GenericRights& rights,
                const SharedSetup* setup, MakeWaitable make, DWORD& access,
                std::shared_ptr<Waitable>& object);

// The same with a handle: for the calls that create, and for those that only open. `Body` has its SharedKind
// as `NamedAs`. The code 183 comes with a handle.
template <class Body>
DWORD NamedHandle(const wchar_t* name, const SharedSetup* setup, DWORD access, HANDLE& handle) noexcept {
    try {
        std::shared_ptr<Waitable> object;
        const DWORD code = OpenNamed(
            name, Body::NamedAs, Body::Kind.rights, setup,
            [](std::unique_ptr<SharedObject> shared) -> std::shared_ptr<Waitable> {
                return std::make_shared<Body>(std::move(shared));
            },
            access, object);
        if (!object) return code;
        if (DWORD failed = InsertHandle(std::move(object), access, handle)) return failed;
        return code;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

}  // namespace Quellan::Platform
