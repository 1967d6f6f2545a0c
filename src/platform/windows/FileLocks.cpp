#include "platform/FileLocks.h"

#include "platform/Win32.h"

namespace Quellan::Corvel::Platform {

DWORD LockFileRange(HANDLE file, ULONGLONG offset, ULONGLONG size, DWORD ms) noexcept {
    const auto low = [](ULONGLONG value) { return static_cast<DWORD>(value); };
    const auto high = [](ULONGLONG value) { return static_cast<DWORD>(value >> 32); };
    constexpr DWORD OnlyYields = 20;  // rounds: a record is written in less time than a nap takes
    const ULONGLONG begin = GetTickCount64();
    for (DWORD round = 0;; ++round) {
        if (LockFile(file, low(offset), high(offset), low(size), high(size))) return ERROR_SUCCESS;
        const DWORD code = GetLastError();
        if (code != ERROR_LOCK_VIOLATION || (ms != INFINITE && GetTickCount64() - begin >= ms)) return code;
        Sleep(round < OnlyYields ? 0 : 1);
    }
}

}  // namespace Quellan::Corvel::Platform
