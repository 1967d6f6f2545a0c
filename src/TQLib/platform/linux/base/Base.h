// Types and values that every topic of the layer shares, by the platform's names.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

using SIZE_T = std::size_t;
using ULONG_PTR = std::uintptr_t;
using DWORD_PTR = ULONG_PTR;
using PVOID = void*;
using LPVOID = void*;
using LPWSTR = wchar_t*;
using LPCWSTR = const wchar_t*;

// Macros in the headers of curses, GLib and others, which stay their own.
#pragma push_macro("FALSE")
#pragma push_macro("TRUE")
#undef FALSE
#undef TRUE
inline constexpr BOOL FALSE = 0;
inline constexpr BOOL TRUE = 1;
#pragma pop_macro("TRUE")
#pragma pop_macro("FALSE")
inline constexpr DWORD MAX_PATH = 260;

// Rights to objects of every kind.
inline constexpr DWORD DELETE = 0x00010000;
inline constexpr DWORD READ_CONTROL = 0x00020000;
inline constexpr DWORD WRITE_DAC = 0x00040000;
inline constexpr DWORD WRITE_OWNER = 0x00080000;
inline constexpr DWORD SYNCHRONIZE = 0x00100000;
inline constexpr DWORD STANDARD_RIGHTS_REQUIRED = 0x000F0000;

// Each stands for rights that depend on the kind of the object; MAXIMUM_ALLOWED for all that may be had.
inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;
inline constexpr DWORD GENERIC_EXECUTE = 0x20000000;
inline constexpr DWORD GENERIC_ALL = 0x10000000;
inline constexpr DWORD MAXIMUM_ALLOWED = 0x02000000;

// The value of a failed open; null is the other one, as each function says.
inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~ULONG_PTR{0});

// Both halves of a 64-bit value; the platform's unnamed second pair of halves is not offered.
union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};

// 100-nanosecond steps since the beginning of 1601, UTC.
struct FILETIME {
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME {
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};

struct SECURITY_ATTRIBUTES {
    DWORD nLength;
    void* lpSecurityDescriptor;
    BOOL bInheritHandle;
};

struct OVERLAPPED;

}  // namespace Quellan::Platform
