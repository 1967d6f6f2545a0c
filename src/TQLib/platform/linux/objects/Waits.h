// Waiting for events, mutexes, semaphores and threads.
#pragma once

#include "TQLib/platform/linux/base/Base.h"
#include "TQLib/platform/linux/base/Errors.h"  // WAIT_TIMEOUT

namespace Quellan::Platform {

inline constexpr DWORD INFINITE = 0xFFFFFFFF;
inline constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED = 0x80;
inline constexpr DWORD WAIT_ABANDONED_0 = 0x80;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

// What all waits have in common. An object is taken by the wait that returns it: an automatic event is reset,
// a semaphore goes down by one, a mutex belongs to the calling thread, which may take it again and again. A
// time-out runs on the monotonic clock; INFINITE has no end, 0 only looks. A wait keeps its objects alive: a
// handle closed meanwhile does not end it, and other handles of the object can. Handles need SYNCHRONIZE.
//
// WAIT_OBJECT_0, WAIT_ABANDONED_0 (as the owner of a mutex whose last owner ended without releasing it) or
// WAIT_TIMEOUT. WAIT_FAILED with 6 (ERROR_INVALID_HANDLE), 5 (ERROR_ACCESS_DENIED) or 8
// (ERROR_NOT_ENOUGH_MEMORY).
TQLIB_API DWORD WaitForSingleObject(HANDLE handle, DWORD ms) noexcept;
// The layer has no asynchronous procedure calls: an alertable wait is a wait.
TQLIB_API DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable) noexcept;
// For one of 1 to 64 objects: the first one that is signalled, WAIT_OBJECT_0 or WAIT_ABANDONED_0 plus its
// index. With `waitAll` for all of them: nothing is taken before all are signalled, then all at once;
// WAIT_OBJECT_0, or WAIT_ABANDONED_0 when a mutex among them was abandoned. 87 (ERROR_INVALID_PARAMETER) for
// any other count, and for an object that comes twice in a wait for all.
TQLIB_API DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD ms) noexcept;
TQLIB_API DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD ms,
                                         BOOL alertable) noexcept;

}  // namespace Quellan::Platform
