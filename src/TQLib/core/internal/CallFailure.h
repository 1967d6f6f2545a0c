// What a failed platform call left as the last error, as an exception.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Whether the code is one of those by which platform calls tell that there is no memory.
bool IsMemoryExhausted(DWORD code) noexcept;

// Throws `TQSysException` with the last error; exhausted memory is thrown as everywhere, as `TQException` 14
// (ERROR_OUTOFMEMORY).
[[noreturn]] void ThrowCallFailure(const wchar_t* where);

}  // namespace Quellan::Corvel
