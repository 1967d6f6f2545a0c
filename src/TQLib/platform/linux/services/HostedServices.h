// The services of this process, as whoever has started it sees them: it runs them, controls them and hears
// what they report.
//
// Main functions and handlers are called without locks. For several threads.
#pragma once

#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/services/ServiceMessages.h"

#include <memory>
#include <string>
#include <vector>

namespace Quellan::Platform {

class ServiceListener;

// All of it may throw std::bad_alloc.
class HostedServices {
  public:
    // Guards what is known of the services, and what their listener keeps of their reports.
    static constinit inline PlainLock Lock;

    // Never destroyed: service threads may outlive the dispatcher.
    static HostedServices& Instance();

    // Once: 1056 (ERROR_SERVICE_ALREADY_RUNNING) afterwards. 87 (ERROR_INVALID_PARAMETER), 13
    // (ERROR_INVALID_DATA).
    DWORD SetTable(const SERVICE_TABLE_ENTRYW* table);
    std::vector<std::string> Names();
    // Null for nobody.
    void SetListener(ServiceListener* listener);

    // Begins the service's main function; where the process is for this service alone it may have another
    // name in the table. One that returns without a handler has stopped, with 1067 (ERROR_PROCESS_ABORTED).
    // 1083 (ERROR_SERVICE_NOT_IN_EXE), 1056 (ERROR_SERVICE_ALREADY_RUNNING), 1054
    // (ERROR_SERVICE_NO_THREAD).
    DWORD Run(const RunMessage& run);
    // What the handler returns: 1062 (ERROR_SERVICE_NOT_ACTIVE), 1061 (ERROR_SERVICE_CANNOT_ACCEPT_CTRL)
    // before there is one.
    DWORD Control(const std::string& name, DWORD control);

    // The services that were ever started here.
    std::vector<NamedStatus> Statuses();
    // The same, handed to `use` before any other report.
    template <class Use>
    auto WithStatuses(Use use) {
        const Guard lock(Lock);
        return use(StatusesLocked());
    }
    bool AreAllStopped();

    // What the platform's calls do.
    DWORD Register(const wchar_t* name, LPHANDLER_FUNCTION_EX handler, void* context,
                   SERVICE_STATUS_HANDLE& handle);
    DWORD Report(SERVICE_STATUS_HANDLE handle, const SERVICE_STATUS& status);

  private:
    struct Hosted;
    struct MainCall;
    struct StatusTarget;

    HostedServices() = default;
    Hosted* FindInTable(const RunMessage& run) TQ_REQUIRES(Lock);
    Hosted* FindRunning(const wchar_t* name) TQ_REQUIRES(Lock);
    std::vector<NamedStatus> StatusesLocked() TQ_REQUIRES(Lock);
    void OnMainReturned(Hosted& service, unsigned run) noexcept;

    std::vector<std::unique_ptr<Hosted>> m_services TQ_GUARDED_BY(Lock);  // complete once the table is set
    ServiceListener* m_listener TQ_GUARDED_BY(Lock) = nullptr;
};

// Who hears of reports. It must neither wait nor call the host.
class ServiceListener {
  public:
    virtual ~ServiceListener() = default;
    virtual void OnReport(const NamedStatus& service) noexcept TQ_REQUIRES(HostedServices::Lock) = 0;
};

}  // namespace Quellan::Platform
