// Environment variables and clocks.
//
// Names of variables are compared without regard to case, as on the platform; where the system's environment
// holds two that differ in case alone, the exact spelling wins. The calls exclude each other, but not code
// that changes the environment without them.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

// The length of the value without its terminator, or where `size` is too small the size needed with it. 0
// with 203 (ERROR_ENVVAR_NOT_FOUND) when there is none.
TQLIB_API DWORD GetEnvironmentVariableW(const wchar_t* name, wchar_t* buffer, DWORD size) noexcept;
// Null removes the variable if there is one. 87 (ERROR_INVALID_PARAMETER) for an empty name or one
// with '='.
TQLIB_API BOOL SetEnvironmentVariableW(const wchar_t* name, const wchar_t* value) noexcept;
// Replaces each %NAME% whose variable exists. The size of the result with its terminator, which was written
// only where `size` is at least that.
TQLIB_API DWORD ExpandEnvironmentStringsW(const wchar_t* source, wchar_t* buffer, DWORD size) noexcept;

TQLIB_API void GetSystemTimeAsFileTime(FILETIME* time) noexcept;
// UTC.
TQLIB_API void GetSystemTime(SYSTEMTIME* time) noexcept;
TQLIB_API void GetLocalTime(SYSTEMTIME* time) noexcept;

// Milliseconds since the system's start, time asleep included.
TQLIB_API ULONGLONG GetTickCount64() noexcept;
// Wraps around every 49.7 days.
TQLIB_API DWORD GetTickCount() noexcept;
// Steps of 100 nanoseconds of a clock that is never set.
TQLIB_API BOOL QueryPerformanceCounter(LARGE_INTEGER* count) noexcept;
TQLIB_API BOOL QueryPerformanceFrequency(LARGE_INTEGER* stepsInSecond) noexcept;

}  // namespace Quellan::Platform
