#include "platform/linux/Memory.h"

#include "platform/linux/internal/Fail.h"
#include "platform/linux/internal/FaultPoint.h"

#include <cstdlib>
#include <cstring>

using namespace Quellan::Corvel::Platform;

namespace {

// Stands before each block of the local heap and keeps the block's alignment.
struct alignas(16) LocalHeader {
    SIZE_T size;
};

LocalHeader* HeaderOf(HLOCAL block) noexcept {
    return static_cast<LocalHeader*>(block) - 1;
}

DWORD CheckLocalFlags(UINT flags, UINT allowed) noexcept {
    constexpr UINT Known = LMEM_MOVEABLE | LMEM_ZEROINIT;
    if (flags & ~Known) return ERROR_INVALID_PARAMETER;
    return flags & ~allowed ? ERROR_NOT_SUPPORTED : ERROR_SUCCESS;
}

}  // namespace

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) noexcept {
    if (DWORD code = FaultDue("LocalAlloc")) return Fail(code, nullptr);
    if (DWORD code = CheckLocalFlags(flags, LMEM_ZEROINIT)) return Fail(code, nullptr);
    if (bytes > SIZE_MAX - sizeof(LocalHeader)) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    const SIZE_T whole = sizeof(LocalHeader) + bytes;
    auto* header =
        static_cast<LocalHeader*>(flags & LMEM_ZEROINIT ? std::calloc(1, whole) : std::malloc(whole));
    if (!header) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    header->size = bytes;
    return header + 1;
}

HLOCAL LocalReAlloc(HLOCAL block, SIZE_T bytes, UINT flags) noexcept {
    if (DWORD code = FaultDue("LocalReAlloc")) return Fail(code, nullptr);
    if (!block) return Fail(ERROR_INVALID_HANDLE, nullptr);
    if (DWORD code = CheckLocalFlags(flags, LMEM_MOVEABLE | LMEM_ZEROINIT)) return Fail(code, nullptr);
    LocalHeader* header = HeaderOf(block);
    const SIZE_T old = header->size;
    // The heap has no call that only grows in place.
    if (bytes > old && !(flags & LMEM_MOVEABLE)) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    if (bytes > old) {
        if (bytes > SIZE_MAX - sizeof(LocalHeader)) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
        header = static_cast<LocalHeader*>(std::realloc(header, sizeof(LocalHeader) + bytes));
        if (!header) return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
        if (flags & LMEM_ZEROINIT) std::memset(reinterpret_cast<char*>(header + 1) + old, 0, bytes - old);
    }
    header->size = bytes;
    return header + 1;
}

SIZE_T LocalSize(HLOCAL block) noexcept {
    if (!block) return Fail(ERROR_INVALID_HANDLE, SIZE_T{0});
    return HeaderOf(block)->size;
}

HLOCAL LocalFree(HLOCAL block) noexcept {
    if (block) std::free(HeaderOf(block));
    return nullptr;
}
