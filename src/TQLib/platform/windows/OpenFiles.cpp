#include "TQLib/platform/OpenFiles.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Platform {

namespace {

DWORD Low(ULONGLONG value) noexcept {
    return static_cast<DWORD>(value);
}

DWORD High(ULONGLONG value) noexcept {
    return static_cast<DWORD>(value >> 32);
}

OVERLAPPED At(ULONGLONG offset) noexcept {
    OVERLAPPED place{};
    place.Offset = Low(offset);
    place.OffsetHigh = High(offset);
    return place;
}

}  // namespace

DWORD LockFileRange(HANDLE file, ULONGLONG offset, ULONGLONG size, DWORD ms) noexcept {
    constexpr DWORD OnlyYields = 20;  // rounds: a record is written in less time than a nap takes
    const ULONGLONG begin = GetTickCount64();
    for (DWORD round = 0;; ++round) {
        if (LockFile(file, Low(offset), High(offset), Low(size), High(size))) return ERROR_SUCCESS;
        const DWORD code = GetLastError();
        if (code != ERROR_LOCK_VIOLATION || (ms != INFINITE && GetTickCount64() - begin >= ms)) return code;
        Sleep(round < OnlyYields ? 0 : 1);
    }
}

DWORD ReadFileAt(HANDLE file, ULONGLONG offset, void* buffer, DWORD size, DWORD& got) noexcept {
    OVERLAPPED place = At(offset);
    got = 0;
    if (ReadFile(file, buffer, size, &got, &place)) return ERROR_SUCCESS;
    const DWORD code = GetLastError();
    return code == ERROR_HANDLE_EOF ? ERROR_SUCCESS : code;
}

DWORD WriteFileAt(HANDLE file, ULONGLONG offset, const void* bytes, DWORD size, DWORD& written) noexcept {
    OVERLAPPED place = At(offset);
    written = 0;
    return WriteFile(file, bytes, size, &written, &place) ? ERROR_SUCCESS : GetLastError();
}

DWORD SetFileSize(HANDLE file, ULONGLONG size) noexcept {
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(size);
    return SetFilePointerEx(file, end, nullptr, FILE_BEGIN) && SetEndOfFile(file) ? ERROR_SUCCESS
                                                                                  : GetLastError();
}

static bool IsFileAt(HANDLE file, const wchar_t* name) noexcept {
    constexpr DWORD All = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    const HANDLE named = CreateFileW(name, 0, All, nullptr, OPEN_EXISTING, 0, nullptr);
    if (named == INVALID_HANDLE_VALUE)
        return GetLastError() != ERROR_FILE_NOT_FOUND && GetLastError() != ERROR_PATH_NOT_FOUND;
    BY_HANDLE_FILE_INFORMATION own, other;
    const bool isKnown = GetFileInformationByHandle(file, &own) && GetFileInformationByHandle(named, &other);
    CloseHandle(named);
    return !isKnown ||
           (own.dwVolumeSerialNumber == other.dwVolumeSerialNumber &&
            own.nFileIndexHigh == other.nFileIndexHigh && own.nFileIndexLow == other.nFileIndexLow);
}

DWORD SizeOfFileAt(HANDLE file, const wchar_t* name, bool isDeletionShared, ULONGLONG& size) noexcept {
    if (isDeletionShared && !IsFileAt(file, name)) return ERROR_FILE_INVALID;
    LARGE_INTEGER found;
    if (!GetFileSizeEx(file, &found)) return GetLastError();
    size = static_cast<ULONGLONG>(found.QuadPart);
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Platform
