// Message texts by the platform's calls.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

#include <cstdarg>

namespace Quellan::Platform {

inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x00000100;
inline constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
inline constexpr DWORD FORMAT_MESSAGE_FROM_STRING = 0x00000400;
inline constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x00000800;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;
inline constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x00002000;
inline constexpr DWORD FORMAT_MESSAGE_MAX_WIDTH_MASK = 0x000000FF;

// The text of a message with its inserts expanded. Returns its number of characters without the terminator, 0
// on failure; the buffer is then untouched, and the pointer for an allocated one (LocalAlloc, to be freed
// with LocalFree) is null.
//
// The system's texts are English: languages 0, user default and system default have them, and so have 0x0009
// and 0x0409. They answer Win32 codes, the same codes as HRESULT (0x8007....), HRESULTs and NTSTATUS codes. A
// null module is the executable. An argument is a 64-bit slot of the array, or is taken from the variable
// arguments as one; inserts %1 to %99 are known, their formats those of the platform's printf without
// floating point, sizes as on the platform
// ("l" has 32 bits).
//
// Codes of failure: 87 (ERROR_INVALID_PARAMETER) for null pointers, unknown flags, no source, a string
// together with another source, a malformed text, and an insert when there are no arguments; 122
// (ERROR_INSUFFICIENT_BUFFER) when the text and its terminator pass the buffer's size or 64 K characters; 234
// (ERROR_MORE_DATA) for the latter in an allocated buffer; 235 (ERROR_NO_WORK_DONE) for an empty text; 317
// (ERROR_MR_MID_NOT_FOUND) for an unknown message; 1812 (ERROR_RESOURCE_DATA_NOT_FOUND) for a module without
// messages; 1815 (ERROR_RESOURCE_LANG_NOT_FOUND) when there are none in the language asked for; 13
// (ERROR_INVALID_DATA) for a damaged message table; 8 (ERROR_NOT_ENOUGH_MEMORY).
TQLIB_API DWORD FormatMessageW(DWORD flags, const void* source, DWORD messageId, DWORD languageId,
                               wchar_t* buffer, DWORD size, va_list* arguments) noexcept;

// Copies a string of a module's string tables, cut to the buffer and terminated, and returns its length in
// characters; a null module is the executable. 0 with 1814 (ERROR_RESOURCE_NAME_NOT_FOUND) when there is no
// such string, 1812 (ERROR_RESOURCE_DATA_NOT_FOUND) when the module has none at all. A size of 0, for which
// the platform shows its own memory, gives 50 (ERROR_NOT_SUPPORTED). The strings of Windows modules are not
// read.
TQLIB_API int LoadStringW(HMODULE module, UINT id, wchar_t* buffer, int size) noexcept;

}  // namespace Quellan::Platform
