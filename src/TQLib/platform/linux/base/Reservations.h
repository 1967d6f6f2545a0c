// Ranges of addresses in the platform's three states: free, reserved, committed.
#pragma once

#include "TQLib/platform/linux/base/Base.h"
#include "TQLib/platform/linux/base/Lock.h"

#include <iterator>
#include <map>

namespace Quellan::Platform {

// A value for every address: 0 where nothing was assigned.
class AddressMap {
  public:
    // A new value for a range: all that it needs is there when it is made, so that the change itself, once
    // the kernel has made its own, cannot fail. Without Make nothing changes. The map must outlive it.
    class Change;

    DWORD At(ULONG_PTR address) const noexcept;
    // Whether `value` stands somewhere in the range.
    bool Contains(ULONG_PTR begin, ULONG_PTR end, DWORD value) const noexcept;
    // Calls `use(begin, end, value)` for each part of the range that has one value.
    void ForEachPart(ULONG_PTR begin, ULONG_PTR end, auto use) const noexcept {
        while (begin < end) {
            const auto next = m_changes.upper_bound(begin);
            const ULONG_PTR stop = next == m_changes.end() || next->first > end ? end : next->first;
            use(begin, stop, At(begin));
            begin = stop;
        }
    }

  private:
    std::map<ULONG_PTR, DWORD> m_changes;  // from each key on
};

class AddressMap::Change {
  public:
    // May throw std::bad_alloc.
    Change(AddressMap& map, ULONG_PTR begin, ULONG_PTR end)
        : m_map(map), m_end(map, end), m_begin(map, begin) {}

    void Make(DWORD value) noexcept {
        m_map.m_changes.erase(std::next(m_begin.at), m_end.at);
        m_begin.at->second = value;
    }

  private:
    // An address where the value may change; it goes where it does not.
    struct Boundary {
        Boundary(AddressMap& map, ULONG_PTR address)
            : changes(map.m_changes), at(changes.try_emplace(address, map.At(address)).first) {}
        ~Boundary() {
            const DWORD before = at == changes.begin() ? 0 : std::prev(at)->second;
            if (at->second == before) changes.erase(at);
        }
        Boundary(const Boundary&) = delete;
        Boundary& operator=(const Boundary&) = delete;

        std::map<ULONG_PTR, DWORD>& changes;
        std::map<ULONG_PTR, DWORD>::iterator at;
    };

    AddressMap& m_map;
    Boundary m_end;
    Boundary m_begin;
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
    static void Hold() noexcept TQ_ACQUIRES(Instance().m_lock) { Instance().m_lock.lock(); }
    static void Resume(bool) noexcept TQ_RELEASES(Instance().m_lock) { Instance().m_lock.unlock(); }

  private:
    struct Range {
        ULONG_PTR begin;
        ULONG_PTR end;
    };

    static DWORD WholePages(const void* address, SIZE_T size, Range& range) noexcept;
    // The end of the reservation that holds all of the range; 0 when there is none.
    ULONG_PTR EndOfReservation(Range range) const noexcept TQ_REQUIRES(m_lock);
    // Gives pages of ours the protection that is known of them, after a change that failed on its way.
    void RestoreProtection(Range range) const noexcept TQ_REQUIRES(m_lock);

    PlainLock m_lock;
    std::map<ULONG_PTR, ULONG_PTR> m_reserved TQ_GUARDED_BY(m_lock);  // begin to end
    AddressMap m_protection TQ_GUARDED_BY(m_lock);                    // of committed pages
    AddressMap m_locked TQ_GUARDED_BY(m_lock);                        // 1 for locked pages
};

}  // namespace Quellan::Platform
