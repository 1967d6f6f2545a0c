#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

void TQEventLog::InstallSource(const wchar_t*, const wchar_t*, DWORD) {
    throw TQSysException(ERROR_NOT_SUPPORTED, L"TQEventLog::InstallSource");
}

void TQEventLog::RemoveSource(const wchar_t*) {
    throw TQSysException(ERROR_NOT_SUPPORTED, L"TQEventLog::RemoveSource");
}

}  // namespace Quellan::Corvel
