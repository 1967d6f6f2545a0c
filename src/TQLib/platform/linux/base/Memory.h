// Memory: the local heap, pages, and questions about addresses.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

using HLOCAL = void*;

inline constexpr UINT LMEM_FIXED = 0x0000;
inline constexpr UINT LMEM_MOVEABLE = 0x0002;
inline constexpr UINT LMEM_ZEROINIT = 0x0040;
inline constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;

// A block of at least `bytes` bytes, aligned to 16; null with 8 (ERROR_NOT_ENOUGH_MEMORY) when there is no
// memory, with 50 (ERROR_NOT_SUPPORTED) for movable memory, with 87 (ERROR_INVALID_PARAMETER) for unknown
// flags.
TQLIB_API HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) noexcept;
// Null on success. Null is no error.
TQLIB_API HLOCAL LocalFree(HLOCAL block) noexcept;

inline constexpr DWORD PAGE_NOACCESS = 0x01;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;
inline constexpr DWORD PAGE_EXECUTE = 0x10;
inline constexpr DWORD PAGE_EXECUTE_READ = 0x20;
inline constexpr DWORD PAGE_EXECUTE_READWRITE = 0x40;

inline constexpr DWORD MEM_COMMIT = 0x1000;
inline constexpr DWORD MEM_RESERVE = 0x2000;
inline constexpr DWORD MEM_DECOMMIT = 0x4000;
inline constexpr DWORD MEM_RELEASE = 0x8000;

// Pages that are zero when first used. Reserved ranges begin at multiples of the allocation granularity. Null
// with 87 (ERROR_INVALID_PARAMETER) for a size of 0 or a protection that is none of the above, with 50
// (ERROR_NOT_SUPPORTED) for other types, with 487 (ERROR_INVALID_ADDRESS) where the range is taken or, for
// committing, not reserved, with 8 (ERROR_NOT_ENOUGH_MEMORY) where there is no memory.
TQLIB_API void* VirtualAlloc(void* address, SIZE_T size, DWORD type, DWORD protect) noexcept;
// MEM_RELEASE takes the address that VirtualAlloc returned for the reservation and a size of 0; MEM_DECOMMIT
// any range in one reservation, or with the same two arguments all of it.
TQLIB_API BOOL VirtualFree(void* address, SIZE_T size, DWORD type) noexcept;
// Changes whole pages, of any memory of the process; `oldProtect` receives the first one's. 487 when one of
// them is not committed, and nothing has changed then.
TQLIB_API BOOL VirtualProtect(void* address, SIZE_T size, DWORD protect, DWORD* oldProtect) noexcept;
// Keeps pages in memory. 1453 (ERROR_WORKING_SET_QUOTA) beyond the process's limit, 998 (ERROR_NOACCESS) for
// pages that cannot be read. Locks do not nest.
TQLIB_API BOOL VirtualLock(void* address, SIZE_T size) noexcept;
// 158 (ERROR_NOT_LOCKED) when one of the pages is not locked; the others are released.
TQLIB_API BOOL VirtualUnlock(void* address, SIZE_T size) noexcept;

struct SYSTEM_INFO {
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    void* lpMinimumApplicationAddress;
    void* lpMaximumApplicationAddress;
    DWORD_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;
    DWORD dwProcessorType;
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;
    WORD wProcessorRevision;
};

inline constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;
inline constexpr WORD PROCESSOR_ARCHITECTURE_ARM64 = 12;

// Processor type, level and revision are 0. The processors are those that the process may run on.
TQLIB_API void GetSystemInfo(SYSTEM_INFO* info) noexcept;

struct MEMORYSTATUSEX {
    DWORD dwLength;
    DWORD dwMemoryLoad;  // in use, in percent
    ULONGLONG ullTotalPhys;
    ULONGLONG ullAvailPhys;
    ULONGLONG ullTotalPageFile;
    ULONGLONG ullAvailPageFile;
    ULONGLONG ullTotalVirtual;
    ULONGLONG ullAvailVirtual;
    ULONGLONG ullAvailExtendedVirtual;
};

// 87 (ERROR_INVALID_PARAMETER) unless `dwLength` is the structure's size.
TQLIB_API BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) noexcept;

// Overwrites with zeros even what is not read again. Returns `memory`.
TQLIB_API void* SecureZeroMemory(void* memory, SIZE_T size) noexcept;

// Whether part of the range, or for text of the characters up to the terminator or `most` of them, cannot be
// read or written at this moment. Asked of the system, without signals; what is there is not changed. Nothing
// is bad about an empty range.
TQLIB_API BOOL IsBadReadPtr(const void* memory, ULONG_PTR size) noexcept;
TQLIB_API BOOL IsBadWritePtr(void* memory, ULONG_PTR size) noexcept;
TQLIB_API BOOL IsBadStringPtrW(const wchar_t* text, ULONG_PTR most) noexcept;

}  // namespace Quellan::Platform
