#include "platform/linux/Tokens.h"

#include "platform/linux/Threads.h"
#include "platform/linux/internal/Fail.h"
#include "platform/linux/internal/FaultPoint.h"

using namespace Quellan::Corvel::Platform;

BOOL OpenThreadToken(HANDLE thread, DWORD, BOOL, HANDLE* token) noexcept {
    if (DWORD code = FaultDue("OpenThreadToken")) return Fail(code, FALSE);
    if (!token) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (GetThreadId(thread) == 0) return Fail(ERROR_INVALID_HANDLE, FALSE);
    return Fail(ERROR_NO_TOKEN, FALSE);
}
