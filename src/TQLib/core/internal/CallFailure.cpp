#include "TQLib/core/internal/CallFailure.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQStdExceptions.h"

namespace Quellan::Corvel {

bool IsMemoryExhausted(DWORD code) noexcept {
    return code == ERROR_NOT_ENOUGH_MEMORY || code == ERROR_OUTOFMEMORY;
}

void ThrowCallFailure(const wchar_t* where) {
    if (IsMemoryExhausted(GetLastError())) TQStdExceptions::ThrowMemAllocError(where);
    TQSysException::ThrowLastError(where);
}

}  // namespace Quellan::Corvel
