// Ranges of addresses in the platform's three states: free, reserved, committed.
#pragma once

#include "platform/linux/Base.h"

#include <map>
#include <mutex>

namespace Quellan::Corvel::Platform {

// A value for every address: 0 where nothing was assigned.
class AddressMap {
  public:
    // May throw std::bad_alloc, with nothing changed.
    void Assign(ULONG_PTR begin, ULONG_PTR end, DWORD value);
    DWORD At(ULONG_PTR address) const noexcept;
    // Whether `value` stands somewhere in the range.
    bool Contains(ULONG_PTR begin, ULONG_PTR end, DWORD value) const noexcept;

  private:
    std::map<ULONG_PTR, DWORD> m_changes;  // from each key on
};

// The page size of the system.
ULONG_PTR PageSize() noexcept;

// What VirtualAlloc and its kin are made of: addresses and sizes as their callers gave them, results are
// Windows codes. For several threads. All may throw std::bad_alloc, with nothing changed.
class Reservations {
  public:
    static constexpr ULONG_PTR Granularity = 0x10000;

    static Reservations& Instance() noexcept;

    // With a protection of 0 the range is reserved only. `address` is null for any place and receives the
    // beginning.
    DWORD Reserve(void*& address, SIZE_T size, DWORD protect);
    DWORD Commit(void*& address, SIZE_T size, DWORD protect);
    DWORD Decommit(void* address, SIZE_T size);
    DWORD Release(void* address);
    DWORD Protect(void* address, SIZE_T size, DWORD protect, DWORD& oldProtect);
    DWORD Lock(void* address, SIZE_T size);
    DWORD Unlock(void* address, SIZE_T size);

    // While the process forks.
    void Hold() noexcept { m_lock.lock(); }
    void Resume() noexcept { m_lock.unlock(); }

  private:
    struct Range {
        ULONG_PTR begin;
        ULONG_PTR end;
    };

    static DWORD WholePages(const void* address, SIZE_T size, Range& range) noexcept;
    // The end of the reservation that holds all of the range; 0 when there is none.
    ULONG_PTR EndOfReservation(Range range) const noexcept;

    std::mutex m_lock;
    std::map<ULONG_PTR, ULONG_PTR> m_reserved;  // begin to end
    AddressMap m_protection;                    // of committed pages
    AddressMap m_locked;                        // 1 for locked pages
};

}  // namespace Quellan::Corvel::Platform
