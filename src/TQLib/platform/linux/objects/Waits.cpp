#include "TQLib/platform/linux/objects/Waits.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"
#include "TQLib/platform/linux/objects/WaitTargets.h"

namespace Quellan::Platform {

namespace {

// Most waits that end at once do so here, without the use of an object.
bool LookForSignal(DWORD count, const HANDLE* handles, DWORD ms, DWORD& status) noexcept {
    if (count == 0 || count > MostLooks || !handles) return false;
    std::size_t index = 0;
    switch (LookAt({handles, count}, index)) {
        case Sight::Nothing:
            status = WAIT_TIMEOUT;
            return ms == 0;
        case Sight::Signalled:
            status = static_cast<DWORD>(index);
            return TakeOnWay(handles[index]) == Step::Done;
        case Sight::Unclear:
            break;
    }
    return false;
}

DWORD WaitForSeveral(DWORD count, const HANDLE* handles, bool all, DWORD ms) noexcept {
    BeforeWait();
    DWORD status;
    if (!all && count <= MAXIMUM_WAIT_OBJECTS && handles) {
        // Where the thread's places stand in all queues the wait itself looks as quickly.
        Waiter* const waiter = ms != 0 && count > 1 ? CurrentWaiter() : nullptr;
        const std::span<const HANDLE> each(handles, count);
        if (!(waiter && waiter->Keeps(each)) && LookForSignal(count, handles, ms, status)) return status;
        if (waiter)
            if (const std::optional<DWORD> outcome = waiter->WaitForAnyKept(each, ms)) return *outcome;
    }
    WaitTargets targets;
    if (DWORD code = targets.Open(count, handles, all)) return Fail(code, WAIT_FAILED);
    if (DWORD code = Wait(targets.Objects(), all, ms, status)) return Fail(code, WAIT_FAILED);
    return status;
}

// Apart from the waits that end at once, which so save no registers.
TQ_NOINLINE DWORD WaitForObject(HANDLE handle, DWORD ms) noexcept {
    WaitTarget target;
    if (DWORD code = target.Open(handle)) return Fail(code, WAIT_FAILED);
    Waitable* const object = target.Get();
    DWORD status;
    if (DWORD code = Wait({&object, 1}, false, ms, status)) return Fail(code, WAIT_FAILED);
    return status;
}

DWORD WaitForOne(HANDLE handle, DWORD ms) noexcept {
    BeforeWait();
    const Step step = TakeOnWay(handle);
    if (step == Step::Done) return WAIT_OBJECT_0;
    if (step == Step::Nothing && ms == 0) return WAIT_TIMEOUT;
    return WaitForObject(handle, ms);
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
