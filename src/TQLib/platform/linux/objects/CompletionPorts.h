// Completion ports: queues of packets that hand work to threads.
#pragma once

#include "TQLib/platform/linux/objects/Waits.h"

namespace Quellan::Platform {

struct OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    TQ_UNION_OF_NAMELESS {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED*;

struct OVERLAPPED_ENTRY {
    ULONG_PTR lpCompletionKey;
    LPOVERLAPPED lpOverlapped;
    ULONG_PTR Internal;  // 0: the packet was posted
    DWORD dwNumberOfBytesTransferred;
};
using LPOVERLAPPED_ENTRY = OVERLAPPED_ENTRY*;

inline constexpr DWORD IO_COMPLETION_MODIFY_STATE = 0x0002;
inline constexpr DWORD IO_COMPLETION_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3;

// Packets leave a port in the order in which they came. Of the threads that wait for one the last to come is
// the first to get one.
//
// The concurrency value is taken and limits nothing: as many threads run as there are packets for. The layer
// does not know which of them are blocked - in a file, a socket, a lock of another library - and so never
// lets a packet wait beside a thread that waits.
//
// When the last handle of a port is closed its packets are dropped and waits for one end with 735
// (ERROR_ABANDONED_WAIT_0). A port's handle cannot be waited on in another way: 6 (ERROR_INVALID_HANDLE).
//
// The functions that take a port's handle: 6 (ERROR_INVALID_HANDLE) for what is no port's, 5
// (ERROR_ACCESS_DENIED) for a handle without IO_COMPLETION_MODIFY_STATE, 8 (ERROR_NOT_ENOUGH_MEMORY) when
// there is none for what the layer has to know of the calling thread.

// A new port, with INVALID_HANDLE_VALUE for the file and no existing port; `key` means nothing then.
// Null with 87 (ERROR_INVALID_PARAMETER) for an existing
// port without a file, 50 (ERROR_NOT_SUPPORTED) for a file: the layer's files complete no operations at
// ports; 6 (ERROR_INVALID_HANDLE) when a handle is invalid, 8 (ERROR_NOT_ENOUGH_MEMORY), 1450
// (ERROR_NO_SYSTEM_RESOURCES).
TQLIB_API HANDLE CreateIoCompletionPort(HANDLE file, HANDLE existingPort, ULONG_PTR key,
                                        DWORD concurrentThreads) noexcept;

// Queues a packet; the three values mean nothing to the port. 1450 (ERROR_NO_SYSTEM_RESOURCES) when there is
// no memory for it.
TQLIB_API BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key,
                                          OVERLAPPED* overlapped) noexcept;

// Takes a packet, waiting for one as long as `ms` says. FALSE with a null `*overlapped`, and the rest as it
// was, when there is none: 258 (WAIT_TIMEOUT) or 735 (ERROR_ABANDONED_WAIT_0); 998 (ERROR_NOACCESS) when one
// of the three has no place to go.
TQLIB_API BOOL GetQueuedCompletionStatus(HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                                         DWORD ms) noexcept;

// Takes up to `count` packets, waiting for the first one. FALSE as above with `*removed` 0, and 87
// (ERROR_INVALID_PARAMETER) for a count of 0. The layer has no asynchronous procedure calls: an alertable
// wait is a wait.
TQLIB_API BOOL GetQueuedCompletionStatusEx(HANDLE port, OVERLAPPED_ENTRY* entries, ULONG count,
                                           ULONG* removed, DWORD ms, BOOL alertable) noexcept;

}  // namespace Quellan::Platform
