#include "TQLib/platform/linux/objects/CompletionPorts.h"

#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/base/Memory.h"
#include "TQLib/platform/linux/files/FileObject.h"
#include "TQLib/platform/linux/objects/CompletionPort.h"

namespace Quellan::Platform {

namespace {

DWORD Get(HANDLE port, DWORD ms, Packet& packet) noexcept {
    PortSeat* const seat = PortSeat::Current();
    return seat ? seat->Get(port, ms, packet) : ERROR_NOT_ENOUGH_MEMORY;
}

OVERLAPPED_ENTRY EntryOf(const Packet& packet) noexcept {
    return {.lpCompletionKey = packet.key,
            .lpOverlapped = packet.overlapped,
            .Internal = 0,
            .dwNumberOfBytesTransferred = packet.bytes};
}

}  // namespace

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE existingPort, ULONG_PTR, DWORD) noexcept {
    if (DWORD code = FaultDue("CreateIoCompletionPort")) return Fail(code, HANDLE());
    if (file != INVALID_HANDLE_VALUE) {
        const bool valid =
            HandleRef<FileObject>(file) && (!existingPort || HandleRef<PortObject>(existingPort));
        return Fail(valid ? ERROR_NOT_SUPPORTED : ERROR_INVALID_HANDLE, HANDLE());
    }
    if (existingPort) return Fail(ERROR_INVALID_PARAMETER, HANDLE());
    HANDLE port = nullptr;
    if (DWORD code = NewHandle<PortObject>(port, IO_COMPLETION_ALL_ACCESS)) return Fail(code, HANDLE());
    return port;
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) noexcept {
    if (DWORD code = FaultDue("PostQueuedCompletionStatus")) return Fail(code, FALSE);
    BeforeWait();
    PortSeat* const seat = PortSeat::Current();
    if (!seat) return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    if (DWORD code = seat->Post(port, {key, overlapped, bytes})) return Fail(code, FALSE);
    return TRUE;
}

BOOL GetQueuedCompletionStatus(HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                               DWORD ms) noexcept {
    if (!bytes || !key || !overlapped) return Fail(ERROR_NOACCESS, FALSE);
    *overlapped = nullptr;
    if (DWORD code = FaultDue("GetQueuedCompletionStatus")) return Fail(code, FALSE);
    BeforeWait();
    Packet packet;
    if (DWORD code = Get(port, ms, packet)) return Fail(code, FALSE);
    *bytes = packet.bytes;
    *key = packet.key;
    *overlapped = packet.overlapped;
    // Requests that fail complete like this on the platform. Here nothing but a test makes one fail.
    if (DWORD code = FaultDue("FailedCompletion")) return Fail(code, FALSE);
    return TRUE;
}

BOOL GetQueuedCompletionStatusEx(HANDLE port, OVERLAPPED_ENTRY* entries, ULONG count, ULONG* removed,
                                 DWORD ms, BOOL) noexcept {
    if (!entries || !removed) return Fail(ERROR_NOACCESS, FALSE);
    *removed = 0;
    if (DWORD code = FaultDue("GetQueuedCompletionStatusEx")) return Fail(code, FALSE);
    if (count == 0) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    BeforeWait();
    Packet packet;
    if (DWORD code = Get(port, ms, packet)) return Fail(code, FALSE);
    do
        entries[(*removed)++] = EntryOf(packet);
    while (*removed < count && PortSeat::Current()->TryGetNext(packet));
    return TRUE;
}

}  // namespace Quellan::Platform
