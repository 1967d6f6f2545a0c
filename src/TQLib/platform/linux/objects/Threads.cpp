#include "TQLib/platform/linux/objects/Threads.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"

namespace Quellan::Platform {

namespace {

constexpr DWORD SuspendFailed = 0xFFFFFFFF;

// Calls `use` with the thread of a handle that grants `access`; `use` returns a code.
template <class Use>
DWORD UseThread(HANDLE handle, DWORD access, Use use) noexcept {
    if (handle == GetCurrentThread()) {
        Thread* const current = Thread::Current();
        return current ? use(*current) : ERROR_NOT_ENOUGH_MEMORY;
    }
    const HandleRef<Thread> thread(handle);
    if (!thread) return ERROR_INVALID_HANDLE;
    return thread.Access() & access ? use(*thread) : ERROR_ACCESS_DENIED;
}

constexpr DWORD QueryAccess = THREAD_QUERY_INFORMATION | THREAD_QUERY_LIMITED_INFORMATION;

}  // namespace

HANDLE CreateThread(const SECURITY_ATTRIBUTES* attributes, SIZE_T stackSize, LPTHREAD_START_ROUTINE function,
                    void* parameter, DWORD flags, DWORD* id) noexcept {
    if (DWORD code = FaultDue("CreateThread")) return Fail(code, HANDLE());
    if (!function || flags & ~(CREATE_SUSPENDED | STACK_SIZE_PARAM_IS_A_RESERVATION))
        return Fail(ERROR_INVALID_PARAMETER, HANDLE());
    if (attributes && attributes->bInheritHandle) return Fail(ERROR_NOT_SUPPORTED, HANDLE());
    HANDLE handle = nullptr;
    const DWORD code = WithMemory([&] {
        const auto thread = std::make_shared<Thread>(function, parameter, (flags & CREATE_SUSPENDED) != 0);
        if (DWORD failed = InsertHandle(thread, THREAD_ALL_ACCESS, handle)) return failed;
        if (DWORD failed = thread->Start(stackSize)) {
            CloseHandleOf(handle, nullptr);
            return failed;
        }
        if (id) *id = thread->Id();
        return ERROR_SUCCESS;
    });
    return code ? Fail(code, HANDLE()) : handle;
}

HANDLE OpenThread(DWORD access, BOOL inherit, DWORD id) noexcept {
    if (DWORD code = FaultDue("OpenThread")) return Fail(code, HANDLE());
    if (inherit) return Fail(ERROR_NOT_SUPPORTED, HANDLE());
    std::shared_ptr<Thread> thread = Thread::Find(id);
    if (!thread) return Fail(ERROR_INVALID_PARAMETER, HANDLE());
    HANDLE handle = nullptr;
    const DWORD rights = MapRights(Thread::Kind.rights, access);
    if (!rights || rights & ~Thread::Kind.rights.all) return Fail(ERROR_ACCESS_DENIED, HANDLE());
    if (DWORD code = InsertHandle(std::move(thread), rights, handle)) return Fail(code, HANDLE());
    return handle;
}

void ExitThread(DWORD exitCode) {
    Thread* const thread = Thread::Current();
    if (!thread) pthread_exit(nullptr);
    thread->Exit(exitCode);
}

DWORD ResumeThread(HANDLE handle) noexcept {
    if (DWORD code = FaultDue("ResumeThread")) return Fail(code, SuspendFailed);
    DWORD previous;
    if (DWORD code = UseThread(handle, THREAD_SUSPEND_RESUME, [&](Thread& t) { return t.Resume(previous); }))
        return Fail(code, SuspendFailed);
    return previous;
}

DWORD SuspendThread(HANDLE handle) noexcept {
    if (DWORD code = FaultDue("SuspendThread")) return Fail(code, SuspendFailed);
    DWORD previous;
    if (DWORD code = UseThread(handle, THREAD_SUSPEND_RESUME, [&](Thread& t) { return t.Suspend(previous); }))
        return Fail(code, SuspendFailed);
    return previous;
}

BOOL GetExitCodeThread(HANDLE handle, DWORD* exitCode) noexcept {
    if (DWORD code = FaultDue("GetExitCodeThread")) return Fail(code, FALSE);
    if (!exitCode) return Fail(ERROR_NOACCESS, FALSE);
    const DWORD code = UseThread(handle, QueryAccess, [&](const Thread& thread) -> DWORD {
        *exitCode = thread.ExitCode();
        return ERROR_SUCCESS;
    });
    return code ? Fail(code, FALSE) : TRUE;
}

DWORD GetThreadId(HANDLE handle) noexcept {
    if (DWORD code = FaultDue("GetThreadId")) return Fail(code, DWORD{0});
    DWORD id = 0;
    const DWORD code = UseThread(handle, QueryAccess, [&](const Thread& thread) -> DWORD {
        id = thread.Id();
        return ERROR_SUCCESS;
    });
    return code ? Fail(code, DWORD{0}) : id;
}

BOOL GetThreadTimes(HANDLE handle, FILETIME* creation, FILETIME* exit, FILETIME* kernel,
                    FILETIME* user) noexcept {
    if (DWORD code = FaultDue("GetThreadTimes")) return Fail(code, FALSE);
    if (!creation || !exit || !kernel || !user) return Fail(ERROR_NOACCESS, FALSE);
    const DWORD code = UseThread(handle, QueryAccess, [&](Thread& thread) -> DWORD {
        const Thread::Times times = thread.ReadTimes();
        *creation = times.creation;
        *exit = times.exit;
        *kernel = times.kernel;
        *user = times.user;
        return ERROR_SUCCESS;
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL SetThreadPriority(HANDLE handle, int priority) noexcept {
    if (DWORD code = FaultDue("SetThreadPriority")) return Fail(code, FALSE);
    const DWORD code = UseThread(handle, THREAD_SET_INFORMATION,
                                 [&](Thread& thread) { return thread.SetPriority(priority); });
    return code ? Fail(code, FALSE) : TRUE;
}

int GetThreadPriority(HANDLE handle) noexcept {
    if (DWORD code = FaultDue("GetThreadPriority")) return Fail(code, THREAD_PRIORITY_ERROR_RETURN);
    int priority = THREAD_PRIORITY_NORMAL;
    const DWORD code = UseThread(handle, QueryAccess, [&](const Thread& thread) -> DWORD {
        priority = thread.Priority();
        return ERROR_SUCCESS;
    });
    return code ? Fail(code, THREAD_PRIORITY_ERROR_RETURN) : priority;
}

BOOL SwitchToThread() noexcept {
    sched_yield();
    return TRUE;
}

void Sleep(DWORD ms) noexcept {
    if (ms == 0) {
        sched_yield();
        return;
    }
    BeforeWait();
    const timespec until = TimeOf(DeadlineAfter(ms));
    while (ms == INFINITE || clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR)
        if (ms == INFINITE) pause();
}

}  // namespace Quellan::Platform
