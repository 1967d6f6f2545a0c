#include "TQLib/text/memory/TQAllocators.h"

#include "TQLib/platform/Platform.h"

#include <new>

namespace Quellan::Corvel {

namespace {

constexpr TQAllocator g_heap{
    .Allocate = [](std::size_t bytes) noexcept { return ::operator new(bytes, std::nothrow); },
    .Release = [](void* block, std::size_t) noexcept { ::operator delete(block); },
    .wholePages = false,
};

constexpr TQAllocator g_local{
    .Allocate = [](std::size_t bytes) noexcept -> void* { return LocalAlloc(LMEM_FIXED, bytes); },
    .Release = [](void* block, std::size_t) noexcept { LocalFree(block); },
    .wholePages = false,
};

constexpr TQAllocator g_pages{
    .Allocate = [](std::size_t bytes) noexcept -> void* {
        return VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    },
    .Release = [](void* block, std::size_t) noexcept { VirtualFree(block, 0, MEM_RELEASE); },
    .wholePages = true,
};

}  // namespace

template <>
const TQAllocator& TQAllocatorFor<TQMemory::Heap>() noexcept {
    return g_heap;
}

template <>
const TQAllocator& TQAllocatorFor<TQMemory::Local>() noexcept {
    return g_local;
}

template <>
const TQAllocator& TQAllocatorFor<TQMemory::Pages>() noexcept {
    return g_pages;
}

}  // namespace Quellan::Corvel
