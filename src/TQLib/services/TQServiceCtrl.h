// Installed services: listing, asking and controlling them.
#pragma once

#include "TQLib/services/TQServiceList.h"
#include "TQLib/services/TQSvcHandle.h"

#include <functional>

namespace Quellan::Corvel {

// Which services a list has, as flags. Without a kind it is services, without a state both.
enum class ServiceListType : DWORD { Drivers = 1, Services = 2, Active = 4, Inactive = 8 };
constexpr ServiceListType operator|(ServiceListType a, ServiceListType b) noexcept {
    return static_cast<ServiceListType>(static_cast<DWORD>(a) | static_cast<DWORD>(b));
}

// One service by its name; it need not be installed until a member is called. Each member asks the manager
// for no more rights than it needs. A value; several threads may use one at once.
//
// Failures are `TQSysException` with the platform's code and a text that names the service: 1060
// (ERROR_SERVICE_DOES_NOT_EXIST) for one that is not installed, 5 (ERROR_ACCESS_DENIED), 1722
// (RPC_S_SERVER_UNAVAILABLE) where no manager answers, and what each member says.
class TQLIB_API TQServiceCtrl : public TQObject {
  public:
    // Called with each status that is seen during a wait.
    using Progress = std::function<void(const TQServiceRecord& status)>;

    // Of this machine where `machine` is null.
    explicit TQServiceCtrl(TQString name, const wchar_t* machine = nullptr);
    TQServiceCtrl(const TQServiceCtrl&);
    TQServiceCtrl& operator=(const TQServiceCtrl&);
    ~TQServiceCtrl() override;

    [[nodiscard]] const TQString& Name() const noexcept { return m_name; }

    [[nodiscard]] TQServiceStatus QueryStatus() const;
    // Of the process that the service runs in; 0 where it does not run.
    [[nodiscard]] DWORD ProcessID() const;
    [[nodiscard]] TQServiceConfig Config() const;

    // Requests the start and returns while it is under way. 1056 (ERROR_SERVICE_ALREADY_RUNNING), 1058
    // (ERROR_SERVICE_DISABLED), 1053 (ERROR_SERVICE_REQUEST_TIMEOUT), 1068 (ERROR_SERVICE_DEPENDENCY_FAIL).
    void Start(const TQStringArray& arguments = {}) const;
    // Starts the service and waits until it runs. Throws its exit code where it stops instead, 1067
    // (ERROR_PROCESS_ABORTED) where it has none, and 1053 where for `ms` milliseconds neither its state nor
    // its check point changes.
    void StartAndWait(const TQStringArray& arguments, DWORD ms, const Progress& progress = {}) const;

    // Send a control; the status after it. 1062 (ERROR_SERVICE_NOT_ACTIVE), 1061
    // (ERROR_SERVICE_CANNOT_ACCEPT_CTRL), 1052 (ERROR_INVALID_SERVICE_CONTROL), 1051
    // (ERROR_DEPENDENT_SERVICES_RUNNING), 1053 (ERROR_SERVICE_REQUEST_TIMEOUT).
    TQServiceRecord Stop() const;
    TQServiceRecord Pause() const;
    TQServiceRecord Continue() const;
    TQServiceRecord Interrogate() const;
    TQServiceRecord Control(DWORD control) const;
    // Stops the service, unless it has stopped, and waits until it has, also where it is on its way to that.
    // Throws 1053 as `StartAndWait`.
    void StopAndWait(DWORD ms, const Progress& progress = {}) const;

    // Ends the process of the service, and with it all services in it, without asking them. On Linux no failure
    // actions follow; on Windows they do. Returns while that is under way. 1062 (ERROR_SERVICE_NOT_ACTIVE).
    void Kill() const;

    // Waits up to `ms` milliseconds for the state; false when the time is up.
    [[nodiscard]] bool WaitForState(DWORD state, DWORD ms, const Progress& progress = {}) const;

    // Takes the service out; one that runs, or that somebody has open, goes later. 1072
    // (ERROR_SERVICE_MARKED_FOR_DELETE) where that was done already.
    void Delete() const;

    // The installed services. Throws as above with a text about the manager.
    [[nodiscard]] static TQServiceList ServiceList(ServiceListType types, const wchar_t* machine = nullptr);

  private:
    [[nodiscard]] TQSvcHandle Open(DWORD access) const;
    TQServiceRecord Send(DWORD control, DWORD access) const;

    TQString m_name;
    TQString m_machine;  // empty: this one
};

}  // namespace Quellan::Corvel
