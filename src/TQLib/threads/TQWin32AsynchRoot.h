// The record that travels through a completion port.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// What thread pool and asynchronous I/O have in common. Static functions only; all may be called from several
// threads at once.
class TQLIB_API _TQWin32AsynchRoot {
  public:
    _TQWin32AsynchRoot() = delete;

    // The platform's record, and behind it what the library adds.
    struct OVERLAPPED_DATA {
        alignas(void*) std::byte overlapped[32];  // the platform's OVERLAPPED, without the platform's header
        BYTE* data;
        ULONGLONG length;  // of the data, in bytes
        ULONGLONG number;  // the owner's
        DWORD bytes;       // that were or are to be transferred
        bool isOwnCopy;    // the data lies in memory of the record's and goes with it
        BYTE sizeClass;    // how the memory is recycled
    };

    // A record with `offset` as its position in a file and everything else zero. With `ownCopy` it has `size`
    // bytes of memory of its own for the data, which are not initialised; without, the data is the caller's
    // and remains to be set. Records with up to `RecycledBytes` bytes are used again and allocate nothing as
    // long as there are free ones. Throws 14 (ERROR_OUTOFMEMORY).
    [[nodiscard]] static OVERLAPPED_DATA* AllocOverlapped(DWORD size, bool ownCopy, ULONGLONG offset);
    // Takes back a record that no port and no request has any more; null does nothing.
    static void FreeOverlapped(OVERLAPPED_DATA* record) noexcept;

    static constexpr DWORD RecycledBytes = 256;

    // Gives the memory of free records back to the system, and with it what else is free in the heap. It
    // takes a while: only where very many records were in use at once.
    static void ReleaseFree() noexcept;
};

}  // namespace Quellan::Corvel
