// Opening the service manager and services.
#pragma once

#include "TQLib/platform/Platform.h"
#include "TQLib/services/TQServiceStatus.h"
#include "TQLib/services/TQSvcHandle.h"

namespace Quellan::Corvel {

// Throw as `ThrowServiceFailure` does. `machine` is null or empty for this one.
TQSvcHandle OpenManager(const wchar_t* machine, DWORD access);
TQSvcHandle OpenInstalled(const wchar_t* machine, const wchar_t* name, DWORD access);

TQServiceRecord RecordOf(const SERVICE_STATUS& status) noexcept;
TQServiceRecord QueryRecord(const TQSvcHandle& service, const wchar_t* name);
TQServiceConfig QueryConfig(const TQSvcHandle& service, const wchar_t* name);

// Texts with a terminator each, and one more at the end, as the platform takes dependencies.
TQString TextList(const TQStringArray& texts);

}  // namespace Quellan::Corvel
