// Where buffers get their memory from.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// One source of memory, as two functions that never throw and leave the last error alone where they succeed.
struct TQAllocator {
    // A block of `bytes` bytes (never 0), aligned for every fundamental type and not initialised, or null.
    void* (*Allocate)(std::size_t bytes) noexcept;
    // Takes back a block with the size it was asked for.
    void (*Release)(void* block, std::size_t bytes) noexcept;
    // Whether blocks are whole pages, so that asking for less saves nothing.
    bool wholePages;
};

// The allocators of the library, as numbers for templates.
struct TQMemory {
    enum : unsigned {
        Heap,   // operator new
        Local,  // LocalAlloc, as used by platform calls that hand out memory
        Pages   // VirtualAlloc: whole pages, for large or locked buffers
    };
};

// The allocator that the number `N` stands for. Programs add their own by specialising it for a number of
// theirs, from 1000 on.
template <unsigned N>
const TQAllocator& TQAllocatorFor() noexcept;

template <>
TQLIB_API const TQAllocator& TQAllocatorFor<TQMemory::Heap>() noexcept;
template <>
TQLIB_API const TQAllocator& TQAllocatorFor<TQMemory::Local>() noexcept;
template <>
TQLIB_API const TQAllocator& TQAllocatorFor<TQMemory::Pages>() noexcept;

}  // namespace Quellan::Corvel
