#include "TQLib/platform/linux/base/Reservations.h"

#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Memory.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

constexpr DWORD Locked = 1;

struct Protection {
    DWORD windows;
    int system;
};

constexpr Protection Protections[] = {
    {PAGE_NOACCESS, PROT_NONE},
    {PAGE_READONLY, PROT_READ},
    {PAGE_READWRITE, PROT_READ | PROT_WRITE},
    {PAGE_EXECUTE, PROT_EXEC},
    {PAGE_EXECUTE_READ, PROT_READ | PROT_EXEC},
    {PAGE_EXECUTE_READWRITE, PROT_READ | PROT_WRITE | PROT_EXEC},
};

std::optional<int> SystemProtection(DWORD protect) noexcept {
    for (const Protection& entry : Protections)
        if (entry.windows == protect) return entry.system;
    return std::nullopt;
}

// The platform has no pages that can only be written.
DWORD WindowsProtection(int system) noexcept {
    if (system & PROT_WRITE) system |= PROT_READ;
    for (const Protection& entry : Protections)
        if (entry.system == system) return entry.windows;
    return PAGE_NOACCESS;
}

void* Pointer(ULONG_PTR address) noexcept {
    return reinterpret_cast<void*>(address);
}

// The protection of the first page where the kernel has mapped the whole range; 0 otherwise.
DWORD ProtectionOfMapping(ULONG_PTR begin, ULONG_PTR end) {
    const std::unique_ptr<FILE, int (*)(FILE*)> maps(std::fopen("/proc/self/maps", "re"), std::fclose);
    char line[512];
    DWORD first = 0;
    while (maps && begin < end && std::fgets(line, sizeof line, maps.get())) {
        const std::string_view text(line);
        ULONG_PTR from = 0, to = 0;
        const char* const stop = line + text.size();
        const char* const dash = std::from_chars(line, stop, from, 16).ptr;
        if (dash == stop || *dash != '-') continue;  // the rest of a line too long for the buffer
        const char* const rights = std::from_chars(dash + 1, stop, to, 16).ptr + 1;
        if (to <= begin || stop - rights < 3) continue;
        if (from > begin) return 0;
        if (first == 0)
            first =
                WindowsProtection((rights[0] == 'r' ? PROT_READ : 0) | (rights[1] == 'w' ? PROT_WRITE : 0) |
                                  (rights[2] == 'x' ? PROT_EXEC : 0));
        begin = to;
    }
    return begin < end ? 0 : first;
}

// Maps a range that begins at a multiple of the granularity, inaccessible; null on failure, with errno set.
void* MapAligned(SIZE_T size) noexcept {
    constexpr ULONG_PTR Granularity = Reservations::Granularity;
    const SIZE_T whole = size + Granularity - PageSize();
    if (whole < size) {
        errno = ENOMEM;
        return nullptr;
    }
    void* const mapped = mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapped == MAP_FAILED) return nullptr;
    const auto from = reinterpret_cast<ULONG_PTR>(mapped);
    const ULONG_PTR begin = (from + Granularity - 1) & ~(Granularity - 1);
    if (begin > from) munmap(mapped, begin - from);
    if (from + whole > begin + size) munmap(Pointer(begin + size), from + whole - begin - size);
    return Pointer(begin);
}

}  // namespace

DWORD AddressMap::At(ULONG_PTR address) const noexcept {
    const auto next = m_changes.upper_bound(address);
    return next == m_changes.begin() ? 0 : std::prev(next)->second;
}

bool AddressMap::Contains(ULONG_PTR begin, ULONG_PTR end, DWORD value) const noexcept {
    if (At(begin) == value) return true;
    for (auto next = m_changes.upper_bound(begin); next != m_changes.end() && next->first < end; ++next)
        if (next->second == value) return true;
    return false;
}

ULONG_PTR PageSize() noexcept {
    static const auto size = static_cast<ULONG_PTR>(sysconf(_SC_PAGESIZE));
    return size;
}

namespace {

const ForkPart g_reservationForkPart(ForkOrder::Reservations, &Reservations::Hold, &Reservations::Resume);

}  // namespace

Reservations& Reservations::Instance() noexcept {
    // Never destroyed: memory may be freed until the process ends.
    alignas(Reservations) static std::byte storage[sizeof(Reservations)];
    static Reservations* const instance = new (storage) Reservations;
    return *instance;
}

DWORD Reservations::WholePages(const void* address, SIZE_T size, Range& range) noexcept {
    const auto begin = reinterpret_cast<ULONG_PTR>(address);
    const ULONG_PTR inPage = PageSize() - 1;
    const ULONG_PTR last = ~ULONG_PTR{0} - inPage;  // that can be rounded up
    if (size == 0 || begin > last || size > last - begin) return ERROR_INVALID_PARAMETER;
    range = {begin & ~inPage, (begin + size + inPage) & ~inPage};
    return ERROR_SUCCESS;
}

ULONG_PTR Reservations::EndOfReservation(Range range) const noexcept {
    const auto next = m_reserved.upper_bound(range.begin);
    if (next == m_reserved.begin()) return 0;
    const ULONG_PTR end = std::prev(next)->second;
    return range.end <= end ? end : 0;
}

DWORD Reservations::Reserve(void*& address, SIZE_T size, DWORD protect) {
    const auto wanted = reinterpret_cast<ULONG_PTR>(address) & ~(Granularity - 1);
    const ULONG_PTR before = reinterpret_cast<ULONG_PTR>(address) - wanted;
    const SIZE_T whole = size + before;
    if (whole < before) return ERROR_INVALID_PARAMETER;
    Range range;
    if (DWORD code = WholePages(Pointer(wanted), whole, range)) return code;
    const std::optional<int> system = SystemProtection(protect ? protect : PAGE_NOACCESS);
    if (!system) return ERROR_INVALID_PARAMETER;

    const Guard lock(m_lock);
    constexpr int Flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE;
    const SIZE_T bytes = range.end - range.begin;
    void* base = wanted ? mmap(Pointer(wanted), bytes, PROT_NONE, Flags, -1, 0) : MapAligned(bytes);
    if (base == MAP_FAILED) return errno == ENOMEM ? ERROR_NOT_ENOUGH_MEMORY : ERROR_INVALID_ADDRESS;
    if (!base) return ERROR_NOT_ENOUGH_MEMORY;
    // A kernel that does not know the last flag takes the address for a wish.
    const bool moved = wanted && base != Pointer(wanted);
    if (moved || (protect && mprotect(base, bytes, *system) != 0)) {
        munmap(base, bytes);
        return moved ? ERROR_INVALID_ADDRESS : ERROR_NOT_ENOUGH_MEMORY;
    }
    const auto begin = reinterpret_cast<ULONG_PTR>(base);
    try {
        AddressMap::Change protection(m_protection, begin, begin + bytes);
        m_reserved.try_emplace(begin, begin + bytes);
        protection.Make(protect);
    } catch (const std::bad_alloc&) {
        munmap(base, bytes);
        throw;
    }
    address = base;
    return ERROR_SUCCESS;
}

DWORD Reservations::Commit(void*& address, SIZE_T size, DWORD protect) {
    Range range;
    if (DWORD code = WholePages(address, size, range)) return code;
    const std::optional<int> system = SystemProtection(protect);
    if (!system) return ERROR_INVALID_PARAMETER;
    const Guard lock(m_lock);
    if (!EndOfReservation(range)) return ERROR_INVALID_ADDRESS;
    AddressMap::Change protection(m_protection, range.begin, range.end);
    if (mprotect(Pointer(range.begin), range.end - range.begin, *system) != 0) {
        RestoreProtection(range);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    protection.Make(protect);
    address = Pointer(range.begin);
    return ERROR_SUCCESS;
}

DWORD Reservations::Decommit(void* address, SIZE_T size) {
    const Guard lock(m_lock);
    Range range;
    if (size == 0) {
        const auto found = m_reserved.find(reinterpret_cast<ULONG_PTR>(address));
        if (found == m_reserved.end()) return ERROR_INVALID_ADDRESS;
        range = {found->first, found->second};
    } else {
        if (DWORD code = WholePages(address, size, range)) return code;
        if (!EndOfReservation(range)) return ERROR_INVALID_ADDRESS;
    }
    AddressMap::Change protection(m_protection, range.begin, range.end);
    AddressMap::Change locked(m_locked, range.begin, range.end);
    constexpr int Flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED;
    void* const base = Pointer(range.begin);
    if (mmap(base, range.end - range.begin, PROT_NONE, Flags, -1, 0) != base) return CodeFromErrno(errno);
    protection.Make(0);
    locked.Make(0);
    return ERROR_SUCCESS;
}

DWORD Reservations::Release(void* address) {
    const Guard lock(m_lock);
    const auto found = m_reserved.find(reinterpret_cast<ULONG_PTR>(address));
    if (found == m_reserved.end()) return ERROR_INVALID_ADDRESS;
    const auto [begin, end] = *found;
    AddressMap::Change protection(m_protection, begin, end);
    AddressMap::Change locked(m_locked, begin, end);
    if (munmap(Pointer(begin), end - begin) != 0) return CodeFromErrno(errno);
    protection.Make(0);
    locked.Make(0);
    m_reserved.erase(found);
    return ERROR_SUCCESS;
}

DWORD Reservations::Protect(void* address, SIZE_T size, DWORD protect, DWORD& oldProtect) {
    Range range;
    if (DWORD code = WholePages(address, size, range)) return code;
    const std::optional<int> system = SystemProtection(protect);
    if (!system) return ERROR_INVALID_PARAMETER;
    const Guard lock(m_lock);
    const bool ours = EndOfReservation(range) != 0;
    const DWORD old = !ours ? ProtectionOfMapping(range.begin, range.end)
                      : m_protection.Contains(range.begin, range.end, 0) ? 0
                                                                         : m_protection.At(range.begin);
    if (old == 0) return ERROR_INVALID_ADDRESS;
    std::optional<AddressMap::Change> protection;
    if (ours) protection.emplace(m_protection, range.begin, range.end);
    if (mprotect(Pointer(range.begin), range.end - range.begin, *system) != 0) {
        const int error = errno;
        if (ours) RestoreProtection(range);
        return CodeFromErrno(error);
    }
    if (ours) protection->Make(protect);
    oldProtect = old;
    return ERROR_SUCCESS;
}

void Reservations::RestoreProtection(Range range) const noexcept {
    m_protection.ForEachPart(range.begin, range.end, [](ULONG_PTR begin, ULONG_PTR end, DWORD protect) {
        mprotect(Pointer(begin), end - begin, SystemProtection(protect).value_or(PROT_NONE));
    });
}

DWORD Reservations::Lock(void* address, SIZE_T size) {
    Range range;
    if (DWORD code = WholePages(address, size, range)) return code;
    const SIZE_T bytes = range.end - range.begin;
    if (IsBadReadPtr(Pointer(range.begin), bytes)) return ERROR_NOACCESS;
    const Guard lock(m_lock);
    AddressMap::Change locked(m_locked, range.begin, range.end);
    if (mlock(Pointer(range.begin), bytes) == 0) {
        locked.Make(Locked);
        return ERROR_SUCCESS;
    }
    // It may have come to some of the pages; those that were locked before stay so.
    m_locked.ForEachPart(range.begin, range.end, [](ULONG_PTR begin, ULONG_PTR end, DWORD value) {
        if (value != Locked) munlock(Pointer(begin), end - begin);
    });
    return ERROR_WORKING_SET_QUOTA;
}

DWORD Reservations::Unlock(void* address, SIZE_T size) {
    Range range;
    if (DWORD code = WholePages(address, size, range)) return code;
    const Guard lock(m_lock);
    const bool allLocked = !m_locked.Contains(range.begin, range.end, 0);
    AddressMap::Change locked(m_locked, range.begin, range.end);
    munlock(Pointer(range.begin), range.end - range.begin);
    locked.Make(0);
    return allLocked ? ERROR_SUCCESS : ERROR_NOT_LOCKED;
}

}  // namespace Quellan::Platform
