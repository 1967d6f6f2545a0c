// The calling process and thread.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

namespace Quellan::Platform {

inline constexpr DWORD MAX_COMPUTERNAME_LENGTH = 15;

TQLIB_API DWORD GetCurrentProcessId() noexcept;
// The kernel's thread id.
TQLIB_API DWORD GetCurrentThreadId() noexcept;
// Pseudo handles: they stand for the caller wherever they are used and need no closing.
TQLIB_API HANDLE GetCurrentProcess() noexcept;
TQLIB_API HANDLE GetCurrentThread() noexcept;

// Runs the handlers for the process's end, as `exit` does. The system keeps the lowest eight bits of the
// code.
[[noreturn]] TQLIB_API void ExitProcess(UINT code) noexcept;

// The machine's name without its domain, in upper case, cut at 15 characters. `size` counts characters, the
// terminator included on entry but not on return; 111 (ERROR_BUFFER_OVERFLOW) with the size needed when it is
// too small.
TQLIB_API BOOL GetComputerNameW(wchar_t* buffer, DWORD* size) noexcept;

// Whether another process traces this one.
TQLIB_API BOOL IsDebuggerPresent() noexcept;
// To standard error while the process is traced; otherwise to the file that the environment variable
// TQLIB_DEBUG_OUTPUT names ("-" for standard error), created where it is missing and written in one piece;
// otherwise nowhere. The last error stays.
TQLIB_API void OutputDebugStringW(const wchar_t* text) noexcept;

}  // namespace Quellan::Platform
