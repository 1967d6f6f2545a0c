// Threads.
#pragma once

#include "TQLib/platform/linux/objects/Waits.h"

namespace Quellan::Platform {

using LPTHREAD_START_ROUTINE = DWORD (*)(void*);

inline constexpr DWORD CREATE_SUSPENDED = 0x00000004;
inline constexpr DWORD STACK_SIZE_PARAM_IS_A_RESERVATION = 0x00010000;
inline constexpr DWORD STILL_ACTIVE = 259;
inline constexpr DWORD MAXIMUM_SUSPEND_COUNT = 127;

inline constexpr DWORD THREAD_TERMINATE = 0x0001;
inline constexpr DWORD THREAD_SUSPEND_RESUME = 0x0002;
inline constexpr DWORD THREAD_SET_INFORMATION = 0x0020;
inline constexpr DWORD THREAD_QUERY_INFORMATION = 0x0040;
inline constexpr DWORD THREAD_QUERY_LIMITED_INFORMATION = 0x0800;
inline constexpr DWORD THREAD_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF;

inline constexpr int THREAD_PRIORITY_IDLE = -15;
inline constexpr int THREAD_PRIORITY_LOWEST = -2;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
inline constexpr int THREAD_PRIORITY_NORMAL = 0;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
inline constexpr int THREAD_PRIORITY_HIGHEST = 2;
inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;
inline constexpr int THREAD_PRIORITY_ERROR_RETURN = 0x7FFFFFFF;

// Functions below that take a thread's handle accept the pseudo handle of the calling thread. 6
// (ERROR_INVALID_HANDLE) for what is no thread's, 5 (ERROR_ACCESS_DENIED) for a handle that does not grant
// what is asked for. Threads that were started in another way are known once they have used a pseudo handle,
// waited, owned a mutex or looked for a message.

// A new thread with normal priority; its id is known when the call returns. The stack has `stackSize` bytes,
// 1 MiB for 0, at least what the system needs; all of it is reserved and comes into memory as it is used, so
// STACK_SIZE_PARAM_IS_A_RESERVATION changes nothing. With CREATE_SUSPENDED it waits for ResumeThread before
// anything else. Null with 8 (ERROR_NOT_ENOUGH_MEMORY), 50 (ERROR_NOT_SUPPORTED) for an inherited handle, 87
// (ERROR_INVALID_PARAMETER) for other flags or without a function. A security descriptor is accepted and
// changes nothing.
//
// The thread's handle is signalled after the destructors of its thread_local objects have run; mutexes it
// still owns are abandoned then.
TQLIB_API HANDLE CreateThread(const SECURITY_ATTRIBUTES* attributes, SIZE_T stackSize,
                              LPTHREAD_START_ROUTINE function, void* parameter, DWORD flags,
                              DWORD* id) noexcept;
// A living thread of this process. 87 (ERROR_INVALID_PARAMETER) for an unknown id, 50 (ERROR_NOT_SUPPORTED)
// for an inherited handle.
TQLIB_API HANDLE OpenThread(DWORD access, BOOL inherit, DWORD id) noexcept;
// Ends the calling thread. The destructors of objects on its stack do not run, those of its thread_local
// objects do. (A thread that CreateThread did not make is unwound instead.)
[[noreturn]] TQLIB_API void ExitThread(DWORD exitCode);

// The suspend count before the call, (DWORD)-1 on failure. Only a thread that was created suspended and has
// not begun can be suspended: 50 (ERROR_NOT_SUPPORTED) for others, 156 (ERROR_SIGNAL_REFUSED) above
// MAXIMUM_SUSPEND_COUNT. A thread that runs has the count 0.
TQLIB_API DWORD ResumeThread(HANDLE thread) noexcept;
TQLIB_API DWORD SuspendThread(HANDLE thread) noexcept;

// STILL_ACTIVE until the thread's handle is signalled.
TQLIB_API BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode) noexcept;
// 0 on failure.
TQLIB_API DWORD GetThreadId(HANDLE thread) noexcept;
// When the thread began (or became known, when it was started in another way) and ended, and its processor
// time inside and outside of the kernel. The exit time is 0 while it lives. How another living thread's time
// divides between the two is known to some milliseconds only.
TQLIB_API BOOL GetThreadTimes(HANDLE thread, FILETIME* creation, FILETIME* exit, FILETIME* kernel,
                              FILETIME* user) noexcept;

// One of the seven priorities above: the "nice" values 19, 10, 5, 0, -5, -10 and -15 relative to the
// process's own. Where the process may not raise a priority again after lowering it, or not raise it at all,
// the value is only remembered. 87 (ERROR_INVALID_PARAMETER) for another value.
TQLIB_API BOOL SetThreadPriority(HANDLE thread, int priority) noexcept;
TQLIB_API int GetThreadPriority(HANDLE thread) noexcept;

// Gives the rest of the time slice to another thread, if there is one. TRUE: the kernel does not tell.
TQLIB_API BOOL SwitchToThread() noexcept;
// On the monotonic clock; 0 yields, INFINITE never returns.
TQLIB_API void Sleep(DWORD ms) noexcept;

}  // namespace Quellan::Platform
