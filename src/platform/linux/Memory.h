// Memory by the platform's calls: the local heap.
#pragma once

#include "platform/linux/Base.h"

using HLOCAL = void*;

inline constexpr UINT LMEM_FIXED = 0x0000;
inline constexpr UINT LMEM_MOVEABLE = 0x0002;
inline constexpr UINT LMEM_ZEROINIT = 0x0040;
inline constexpr UINT LPTR = LMEM_FIXED | LMEM_ZEROINIT;

// A block of at least `bytes` bytes, aligned to 16; null with 8 (ERROR_NOT_ENOUGH_MEMORY) when there is no
// memory, with 50 (ERROR_NOT_SUPPORTED) for movable memory, with 87 (ERROR_INVALID_PARAMETER) for unknown
// flags.
TQLIB_API HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) noexcept;
// The block with its new size, possibly at another place, which LMEM_MOVEABLE permits as it does for fixed
// blocks on the platform; without it a block that would have to move fails with 8. On failure null, the old
// block stays.
TQLIB_API HLOCAL LocalReAlloc(HLOCAL block, SIZE_T bytes, UINT flags) noexcept;
// The size asked for; 0 with 6 (ERROR_INVALID_HANDLE) for null.
TQLIB_API SIZE_T LocalSize(HLOCAL block) noexcept;
// Null on success. Null is no error.
TQLIB_API HLOCAL LocalFree(HLOCAL block) noexcept;
