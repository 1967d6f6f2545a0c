// Handles of the service manager.
#pragma once

#include "TQLib/text/memory/TQHandle.h"

namespace Quellan::Corvel {

// The service manager and services: CloseServiceHandle.
struct TQLIB_API _TQSvcHandleClose : _TQNullHandle<SC_HANDLE> {
    static void Close(SC_HANDLE handle) noexcept;
};

using TQSvcHandle = TQHandle<_TQSvcHandleClose>;

}  // namespace Quellan::Corvel
