#include "TQLib/platform/linux/base/Memory.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Reservations.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <linux/futex.h>
#include <sched.h>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>

namespace Quellan::Platform {

namespace {

// The kernel reads a signal set before it looks at what to do with it, and here there is nothing: a question
// about reading without any effect. The set is not the page's first, whose address may be null, which means
// that there is none. A function of its own also for valgrind, which reports the question unless it knows
// where it comes from.
TQ_NOINLINE bool CanReadPage(ULONG_PTR page) noexcept {
    constexpr ULONG_PTR SetSize = 8;
    constexpr int NothingToDo = ~0;
    void* const noOldSet = nullptr;
    return syscall(SYS_rt_sigprocmask, NothingToDo, page + SetSize, noOldSet, SetSize) != -1 ||
           errno != EFAULT;
}

// The kernel adds 0 to a word, in one atomic step, which takes the right to write and loses no other thread's
// write.
bool CanWritePage(ULONG_PTR page) noexcept {
    constexpr int AddZero = FUTEX_OP(FUTEX_OP_ADD, 0, FUTEX_OP_CMP_LT, -2048);
    std::uint32_t nobodyWaits = 0;
    return syscall(SYS_futex, &nobodyWaits, FUTEX_WAKE_OP_PRIVATE, 0, 0L, page, AddZero) != -1 ||
           errno != EFAULT;
}

// Whether the probe holds for each page of the range. Keeps errno.
template <class Probe>
bool HoldsForPages(ULONG_PTR begin, ULONG_PTR size, Probe probe) noexcept {
    if (size == 0) return true;
    const ULONG_PTR last = begin + (size - 1);
    if (last < begin) return false;
    const int saved = errno;
    bool holds = true;
    for (ULONG_PTR at = begin & ~(PageSize() - 1); holds; at += PageSize()) {
        holds = probe(at);
        if (at + (PageSize() - 1) >= last) break;
    }
    errno = saved;
    return holds;
}

// A line "Name:  12345 kB" of a text of the kernel's, in bytes.
ULONGLONG SizeNamed(std::string_view text, std::string_view name) noexcept {
    const std::size_t found = text.find(name);
    if (found == text.npos) return 0;
    const std::size_t digits = text.find_first_of("0123456789", found + name.size());
    ULONGLONG kilobytes = 0;
    if (digits != text.npos) std::from_chars(text.data() + digits, text.data() + text.size(), kilobytes);
    return kilobytes * 1024;
}

constexpr ULONG_PTR LowestAddress = 0x10000;
constexpr ULONG_PTR HighestAddress = 0x7FFF'FFFE'FFFF;

}  // namespace

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) noexcept {
    if (DWORD code = FaultDue("LocalAlloc")) return Fail(code, nullptr);
    if (flags & ~(LMEM_MOVEABLE | LMEM_ZEROINIT)) return Fail(ERROR_INVALID_PARAMETER, nullptr);
    if (flags & LMEM_MOVEABLE) return Fail(ERROR_NOT_SUPPORTED, nullptr);
    if (bytes > PTRDIFF_MAX) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    void* const block = flags & LMEM_ZEROINIT ? std::calloc(1, bytes) : std::malloc(bytes);
    return block ? block : Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
}

HLOCAL LocalFree(HLOCAL block) noexcept {
    std::free(block);
    return nullptr;
}

void* VirtualAlloc(void* address, SIZE_T size, DWORD type, DWORD protect) noexcept {
    if (DWORD code = FaultDue("VirtualAlloc")) return Fail(code, nullptr);
    if (size == 0 || protect == 0 || !(type & (MEM_COMMIT | MEM_RESERVE)))
        return Fail(ERROR_INVALID_PARAMETER, nullptr);
    if (type & ~(MEM_COMMIT | MEM_RESERVE)) return Fail(ERROR_NOT_SUPPORTED, nullptr);
    const bool reserves = type & MEM_RESERVE || !address;
    const DWORD code = WithMemory([&] {
        Reservations& pages = Reservations::Instance();
        return reserves ? pages.Reserve(address, size, type & MEM_COMMIT ? protect : 0)
                        : pages.Commit(address, size, protect);
    });
    return code ? Fail(code, nullptr) : address;
}

BOOL VirtualFree(void* address, SIZE_T size, DWORD type) noexcept {
    const bool release = type == MEM_RELEASE;
    if ((!release && type != MEM_DECOMMIT) || (release && size != 0))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] {
        Reservations& pages = Reservations::Instance();
        return release ? pages.Release(address) : pages.Decommit(address, size);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL VirtualProtect(void* address, SIZE_T size, DWORD protect, DWORD* oldProtect) noexcept {
    if (DWORD code = FaultDue("VirtualProtect")) return Fail(code, FALSE);
    if (!oldProtect) return Fail(ERROR_NOACCESS, FALSE);
    const DWORD code =
        WithMemory([&] { return Reservations::Instance().Protect(address, size, protect, *oldProtect); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL VirtualLock(void* address, SIZE_T size) noexcept {
    if (DWORD code = FaultDue("VirtualLock")) return Fail(code, FALSE);
    const DWORD code = WithMemory([&] { return Reservations::Instance().Lock(address, size); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL VirtualUnlock(void* address, SIZE_T size) noexcept {
    if (DWORD code = FaultDue("VirtualUnlock")) return Fail(code, FALSE);
    const DWORD code = WithMemory([&] { return Reservations::Instance().Unlock(address, size); });
    return code ? Fail(code, FALSE) : TRUE;
}

void GetSystemInfo(SYSTEM_INFO* info) noexcept {
    cpu_set_t processors;
    constexpr long MaskBits = 8 * sizeof(DWORD_PTR);
    DWORD_PTR mask = 0;
    long count = 0;
    if (sched_getaffinity(0, sizeof processors, &processors) == 0) {
        count = CPU_COUNT(&processors);
        for (unsigned i = 0; i < MaskBits; ++i)
            if (CPU_ISSET(i, &processors)) mask |= DWORD_PTR{1} << i;
    } else {  // the machine has more than the set holds
        count = std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L);
        mask = ~DWORD_PTR{0} >> (MaskBits - std::min(count, MaskBits));
    }
    *info = {};
#if defined(__x86_64__)
    info->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_AMD64;
#elif defined(__aarch64__)
    info->wProcessorArchitecture = PROCESSOR_ARCHITECTURE_ARM64;
#else
#error "The processor architecture has no number yet"
#endif
    info->dwPageSize = static_cast<DWORD>(PageSize());
    info->lpMinimumApplicationAddress = reinterpret_cast<void*>(LowestAddress);
    info->lpMaximumApplicationAddress = reinterpret_cast<void*>(HighestAddress);
    info->dwActiveProcessorMask = mask;
    info->dwNumberOfProcessors = static_cast<DWORD>(count);
    info->dwAllocationGranularity = Reservations::Granularity;
}

BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) noexcept {
    if (!status || status->dwLength != sizeof *status) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    char buffer[4096];
    const std::string_view memory = ReadStart("/proc/meminfo", buffer);
    const ULONGLONG total = SizeNamed(memory, "MemTotal:");
    const ULONGLONG available = SizeNamed(memory, "MemAvailable:");
    if (total == 0) return Fail(ERROR_GEN_FAILURE, FALSE);
    char ownBuffer[4096];
    const ULONGLONG used = SizeNamed(ReadStart("/proc/self/status", ownBuffer), "VmSize:");
    constexpr ULONGLONG AllAddresses = HighestAddress - LowestAddress + 1;
    *status = {.dwLength = sizeof *status,
               .dwMemoryLoad = static_cast<DWORD>((total - available) * 100 / total),
               .ullTotalPhys = total,
               .ullAvailPhys = available,
               .ullTotalPageFile = total + SizeNamed(memory, "SwapTotal:"),
               .ullAvailPageFile = available + SizeNamed(memory, "SwapFree:"),
               .ullTotalVirtual = AllAddresses,
               .ullAvailVirtual = used < AllAddresses ? AllAddresses - used : 0,
               .ullAvailExtendedVirtual = 0};
    return TRUE;
}

void* SecureZeroMemory(void* memory, SIZE_T size) noexcept {
    explicit_bzero(memory, size);
    return memory;
}

BOOL IsBadReadPtr(const void* memory, ULONG_PTR size) noexcept {
    return HoldsForPages(reinterpret_cast<ULONG_PTR>(memory), size, CanReadPage) ? FALSE : TRUE;
}

BOOL IsBadWritePtr(void* memory, ULONG_PTR size) noexcept {
    return HoldsForPages(reinterpret_cast<ULONG_PTR>(memory), size, CanWritePage) ? FALSE : TRUE;
}

BOOL IsBadStringPtrW(const wchar_t* text, ULONG_PTR most) noexcept {
    const ULONG_PTR pageSize = PageSize();
    ULONG_PTR readable = 0;  // the end of the page that was looked at last
    for (ULONG_PTR i = 0; i < most; ++i) {
        const auto last = reinterpret_cast<ULONG_PTR>(text + i) + (sizeof(wchar_t) - 1);
        if (last >= readable) {
            if (IsBadReadPtr(text + i, sizeof(wchar_t))) return TRUE;
            readable = (last | (pageSize - 1)) + 1;
        }
        wchar_t character;
        std::memcpy(&character, text + i, sizeof character);  // the text need not be aligned
        if (character == L'\0') break;
    }
    return FALSE;
}

}  // namespace Quellan::Platform
