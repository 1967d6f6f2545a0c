// The services of this process, and the service manager.
#pragma once

#include "TQLib/services/TQService.h"
#include "TQLib/services/TQSvcHandle.h"

namespace Quellan::Corvel {

// Static functions only; all may be called from any thread.
//
// Failures are `TQSysException` with the platform's code and a text that names the service, as
// `TQServiceCtrl` says. `access` are the platform's rights.
class TQLIB_API TQServiceMgr {
  public:
    TQServiceMgr() = delete;

    // Makes a service one of this process. It is borrowed: it must live until `RunServices` has returned or
    // it is taken out. Throws `TQException` 1073 (ERROR_SERVICE_EXISTS) for a name that is registered
    // already, whatever its case, and 87 (ERROR_INVALID_PARAMETER) for null.
    static void RegisterService(_TQService* service);
    // Does nothing for one that is not registered.
    static void UnRegisterService(_TQService* service) noexcept;

    // Runs the registered services as the manager says, until all of them have stopped, and no thread is in a
    // main function or a handler of theirs: they may be destroyed then. 0, or 1 where the last run of a
    // service ended with an exit code. What fails is logged to the system event log, and gives 0x8000FFFF:
    // most of all that no manager has started this process (1063), or that there is no service (1083). The
    // thread is the one on which the controls arrive.
    static LONG RunServices();

    // Installs all registered services with the program of this process, as each says of itself; where one
    // can't be installed, none is. The program is started with `arguments`.
    static void Install(const TQStringArray& arguments = {});
    // Stops and removes all registered services. Throws 1060 (ERROR_SERVICE_DOES_NOT_EXIST) where one was
    // not installed, when the others are gone.
    static void UnInstall();

    // Installs a service, and gives it open for everything. `commandLine` has the path of the program in
    // quotation marks. Null for the display name is the name, for account and password the system's own
    // account. `type` is the platform's, 0x10 for a process of its own, 0x20 for a shared one. With failure
    // actions, they are taken also when the service stops with an exit code.
    //
    // Throws 1073 (ERROR_SERVICE_EXISTS), 1072 (ERROR_SERVICE_MARKED_FOR_DELETE), 1078
    // (ERROR_DUPLICATE_SERVICE_NAME), 1057 (ERROR_INVALID_SERVICE_ACCOUNT), 1059
    // (ERROR_CIRCULAR_DEPENDENCY), 123 (ERROR_INVALID_NAME), 87 (ERROR_INVALID_PARAMETER); nothing is
    // installed then.
    static void InstallService(TQSvcHandle& service, const wchar_t* name, const wchar_t* displayName,
                               const wchar_t* commandLine, const wchar_t* account, const wchar_t* password,
                               DWORD type, TQSvcStart start, const TQServiceOptions& options = {});

    // Opens a service of this machine; false where it is not installed.
    [[nodiscard]] static bool ServiceInstalled(const wchar_t* name, TQSvcHandle& service, DWORD access);
    // Stops the service if it runs, and removes it: it is gone when `service`, which is given open, and all
    // other handles of it are closed. `machine` is null for this one.
    static void RemoveService(const wchar_t* machine, const wchar_t* name, TQSvcHandle& service);

    // Requests the start of a service and returns while it is under way; as `TQServiceCtrl::Start`.
    static void StartServiceW(const wchar_t* machine, const wchar_t* name, DWORD argc, const wchar_t** argv);
    static void StartServiceW(const wchar_t* name, DWORD argc, const wchar_t** argv);
    // Starts a service and waits until it runs; as `TQServiceCtrl::StartAndWait`, with 30 seconds.
    static void ExecuteService(const wchar_t* name, const TQStringArray& arguments);

    // Opens the service manager; false where this user may not have the rights.
    [[nodiscard]] static bool OpenSCManagerW(TQSvcHandle& manager, DWORD access);
    [[nodiscard]] static bool OpenSCManagerW(TQSvcHandle& manager, const wchar_t* machine, DWORD access);

    // How long `UnInstall` and `RemoveService` wait for a service that makes no progress on its way to the
    // stop, and `ExecuteService` on its way to the start.
    static constexpr DWORD ProgressTimeoutMs = 30'000;

  private:
    friend class TQService;
    friend class TQServiceApp;

    static void InstallService(_TQService& service, const TQStringArray& arguments, TQSvcHandle& handle);
    // The registered one of this name. A name that none has is the manager's for a service with a process of
    // its own: the first one, which the platform takes then.
    [[nodiscard]] static TQService& HostedService(const wchar_t* name);
    [[nodiscard]] static std::vector<_TQService*> HostedServices();
    // As `RunServices`; throws.
    static LONG Dispatch();
};

}  // namespace Quellan::Corvel
