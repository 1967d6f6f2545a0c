#include "TQLib/platform/linux/objects/Waits.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"
#include "TQLib/platform/linux/objects/WaitTargets.h"

namespace Quellan::Platform {

namespace {

// Most waits that end at once do so here, and only the object they take is ever in use.
bool LookForSignal(DWORD count, const HANDLE* handles, DWORD ms, DWORD& status) noexcept {
    if (count == 0 || count > MostLooks || !handles) return false;
    std::size_t index = 0;
    switch (LookAt({handles, count}, index)) {
        case Sight::Nothing:
            status = WAIT_TIMEOUT;
            return ms == 0;
        case Sight::Signalled: {
            WaitTarget target;
            if (target.Open(handles[index]) != ERROR_SUCCESS || target.Get()->Rule().takesOwnership)
                return false;
            status = static_cast<DWORD>(index);
            return target.Get()->TryTake(nullptr).has_value();
        }
        case Sight::Unclear:
            break;
    }
    return false;
}

DWORD WaitForSeveral(DWORD count, const HANDLE* handles, bool all, DWORD ms) noexcept {
    BeforeWait();
    DWORD status;
    if (!all && LookForSignal(count, handles, ms, status)) return status;
    WaitTargets targets;
    if (DWORD code = targets.Open(count, handles, all)) return Fail(code, WAIT_FAILED);
    if (DWORD code = Wait(targets.Objects(), all, ms, status)) return Fail(code, WAIT_FAILED);
    return status;
}

DWORD WaitForOne(HANDLE handle, DWORD ms) noexcept {
    BeforeWait();
    WaitTarget target;
    if (DWORD code = target.Open(handle)) return Fail(code, WAIT_FAILED);
    Waitable* const object = target.Get();
    DWORD status;
    if (DWORD code = Wait({&object, 1}, false, ms, status)) return Fail(code, WAIT_FAILED);
    return status;
}

}  // namespace

DWORD WaitForSingleObject(HANDLE handle, DWORD ms) noexcept {
    if (DWORD code = FaultDue("WaitForSingleObject")) return Fail(code, WAIT_FAILED);
    return WaitForOne(handle, ms);
}

DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL) noexcept {
    if (DWORD code = FaultDue("WaitForSingleObjectEx")) return Fail(code, WAIT_FAILED);
    return WaitForOne(handle, ms);
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD ms) noexcept {
    if (DWORD code = FaultDue("WaitForMultipleObjects")) return Fail(code, WAIT_FAILED);
    return WaitForSeveral(count, handles, waitAll != FALSE, ms);
}

DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD ms, BOOL) noexcept {
    if (DWORD code = FaultDue("WaitForMultipleObjectsEx")) return Fail(code, WAIT_FAILED);
    return WaitForSeveral(count, handles, waitAll != FALSE, ms);
}

}  // namespace Quellan::Platform
