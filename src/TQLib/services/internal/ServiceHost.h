// The dispatcher's side of a service manager: the three calls through which hosted services reach theirs.
#pragma once

#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

// By default the platform's own manager. Another one takes its place where the services of a program run
// without a manager, and in tests. Each member is what the platform's call of that name is, last error
// included.
class TQLIB_API ServiceHost {
  public:
    virtual ~ServiceHost();

    // StartServiceCtrlDispatcherW.
    virtual BOOL Dispatch(const SERVICE_TABLE_ENTRYW* table);
    // RegisterServiceCtrlHandlerExW.
    virtual SERVICE_STATUS_HANDLE RegisterHandler(const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                                  void* context);
    // SetServiceStatus. Called under the lock of the service: it must not call back into it.
    virtual BOOL SetStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status);

    static ServiceHost& Current() noexcept;
};

// Puts a host in the place of the current one while it lives; services must not be running when it begins or
// ends.
class TQLIB_API ServiceHostScope {
  public:
    explicit ServiceHostScope(ServiceHost& host) noexcept;
    ServiceHostScope(const ServiceHostScope&) = delete;
    ServiceHostScope& operator=(const ServiceHostScope&) = delete;
    ~ServiceHostScope();

  private:
    ServiceHost* m_previous;
};

}  // namespace Quellan::Corvel
