// Services: programs that the service manager tqscm starts, controls and watches.
//
// The manager is reached over a local socket: the one that the environment variable TQLIB_SERVICE_MANAGER
// names, else services.socket in the state of the boot (docs/service-manager.md). Its records of services are
// keys of the registry, HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Services.
//
// Root and the user as whom the manager runs may do everything. Everybody else may connect, enumerate, query
// configuration, status and dependents, and interrogate; other rights are refused when a handle is opened, 5
// (ERROR_ACCESS_DENIED).
//
// Beside what each call says: 6 (ERROR_INVALID_HANDLE) for what is no handle of the kind needed, 5 for a
// handle that does not grant what the call needs, 1722 (RPC_S_SERVER_UNAVAILABLE) where no manager answers or
// the one that the handle was opened at has ended, 87 (ERROR_INVALID_PARAMETER) for arguments that are
// missing, not allowed or too long, 8 (ERROR_NOT_ENOUGH_MEMORY). Names have up to 255 characters and no case;
// 123 (ERROR_INVALID_NAME) for one that is empty, longer, or has a slash, a backslash or a control character
// in it. Handles may be used by several threads at once. Sizes of buffers count bytes unless it says
// characters.
#pragma once

#include "TQLib/platform/linux/files/SecurityDescriptors.h"

namespace Quellan::Platform {

struct SC_HANDLE__;
struct SERVICE_STATUS_HANDLE__;
using SC_HANDLE = SC_HANDLE__*;
using SERVICE_STATUS_HANDLE = SERVICE_STATUS_HANDLE__*;

inline constexpr wchar_t SERVICES_ACTIVE_DATABASEW[] = L"ServicesActive";
inline constexpr wchar_t SERVICES_ACTIVE_DATABASE[] = L"ServicesActive";

inline constexpr DWORD SC_MANAGER_CONNECT = 0x0001;
inline constexpr DWORD SC_MANAGER_CREATE_SERVICE = 0x0002;
inline constexpr DWORD SC_MANAGER_ENUMERATE_SERVICE = 0x0004;
inline constexpr DWORD SC_MANAGER_LOCK = 0x0008;
inline constexpr DWORD SC_MANAGER_QUERY_LOCK_STATUS = 0x0010;
inline constexpr DWORD SC_MANAGER_MODIFY_BOOT_CONFIG = 0x0020;
inline constexpr DWORD SC_MANAGER_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x003F;

inline constexpr DWORD SERVICE_QUERY_CONFIG = 0x0001;
inline constexpr DWORD SERVICE_CHANGE_CONFIG = 0x0002;
inline constexpr DWORD SERVICE_QUERY_STATUS = 0x0004;
inline constexpr DWORD SERVICE_ENUMERATE_DEPENDENTS = 0x0008;
inline constexpr DWORD SERVICE_START = 0x0010;
inline constexpr DWORD SERVICE_STOP = 0x0020;
inline constexpr DWORD SERVICE_PAUSE_CONTINUE = 0x0040;
inline constexpr DWORD SERVICE_INTERROGATE = 0x0080;
inline constexpr DWORD SERVICE_USER_DEFINED_CONTROL = 0x0100;
inline constexpr DWORD SERVICE_ALL_ACCESS = STANDARD_RIGHTS_REQUIRED | 0x01FF;

inline constexpr DWORD SERVICE_WIN32_OWN_PROCESS = 0x00000010;
inline constexpr DWORD SERVICE_WIN32_SHARE_PROCESS = 0x00000020;
inline constexpr DWORD SERVICE_WIN32 = SERVICE_WIN32_OWN_PROCESS | SERVICE_WIN32_SHARE_PROCESS;

inline constexpr DWORD SERVICE_AUTO_START = 2;    // when the manager starts
inline constexpr DWORD SERVICE_DEMAND_START = 3;  // by StartServiceW, or as another one's dependency
inline constexpr DWORD SERVICE_DISABLED = 4;

inline constexpr DWORD SERVICE_ERROR_IGNORE = 0;
inline constexpr DWORD SERVICE_ERROR_NORMAL = 1;
inline constexpr DWORD SERVICE_ERROR_SEVERE = 2;
inline constexpr DWORD SERVICE_ERROR_CRITICAL = 3;

inline constexpr DWORD SERVICE_NO_CHANGE = 0xFFFFFFFF;

inline constexpr DWORD SERVICE_ACTIVE = 1;
inline constexpr DWORD SERVICE_INACTIVE = 2;
inline constexpr DWORD SERVICE_STATE_ALL = SERVICE_ACTIVE | SERVICE_INACTIVE;

inline constexpr DWORD SERVICE_STOPPED = 1;
inline constexpr DWORD SERVICE_START_PENDING = 2;
inline constexpr DWORD SERVICE_STOP_PENDING = 3;
inline constexpr DWORD SERVICE_RUNNING = 4;
inline constexpr DWORD SERVICE_CONTINUE_PENDING = 5;
inline constexpr DWORD SERVICE_PAUSE_PENDING = 6;
inline constexpr DWORD SERVICE_PAUSED = 7;

inline constexpr DWORD SERVICE_CONTROL_STOP = 1;
inline constexpr DWORD SERVICE_CONTROL_PAUSE = 2;
inline constexpr DWORD SERVICE_CONTROL_CONTINUE = 3;
inline constexpr DWORD SERVICE_CONTROL_INTERROGATE = 4;
inline constexpr DWORD SERVICE_CONTROL_SHUTDOWN = 5;
inline constexpr DWORD SERVICE_CONTROL_PARAMCHANGE = 6;
inline constexpr DWORD SERVICE_CONTROL_NETBINDADD = 7;
inline constexpr DWORD SERVICE_CONTROL_NETBINDREMOVE = 8;
inline constexpr DWORD SERVICE_CONTROL_NETBINDENABLE = 9;
inline constexpr DWORD SERVICE_CONTROL_NETBINDDISABLE = 10;
inline constexpr DWORD SERVICE_CONTROL_DEVICEEVENT = 11;
inline constexpr DWORD SERVICE_CONTROL_HARDWAREPROFILECHANGE = 12;
inline constexpr DWORD SERVICE_CONTROL_POWEREVENT = 13;
inline constexpr DWORD SERVICE_CONTROL_SESSIONCHANGE = 14;
inline constexpr DWORD SERVICE_CONTROL_PRESHUTDOWN = 15;

inline constexpr DWORD SERVICE_ACCEPT_STOP = 0x0001;
inline constexpr DWORD SERVICE_ACCEPT_PAUSE_CONTINUE = 0x0002;
inline constexpr DWORD SERVICE_ACCEPT_SHUTDOWN = 0x0004;
inline constexpr DWORD SERVICE_ACCEPT_PARAMCHANGE = 0x0008;
inline constexpr DWORD SERVICE_ACCEPT_NETBINDCHANGE = 0x0010;
inline constexpr DWORD SERVICE_ACCEPT_HARDWAREPROFILECHANGE = 0x0020;
inline constexpr DWORD SERVICE_ACCEPT_POWEREVENT = 0x0040;
inline constexpr DWORD SERVICE_ACCEPT_SESSIONCHANGE = 0x0080;
inline constexpr DWORD SERVICE_ACCEPT_PRESHUTDOWN = 0x0100;

inline constexpr DWORD SERVICE_CONFIG_DESCRIPTION = 1;
inline constexpr DWORD SERVICE_CONFIG_FAILURE_ACTIONS = 2;
inline constexpr DWORD SERVICE_CONFIG_DELAYED_AUTO_START_INFO = 3;
inline constexpr DWORD SERVICE_CONFIG_FAILURE_ACTIONS_FLAG = 4;

struct SERVICE_STATUS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;  // milliseconds
};
using LPSERVICE_STATUS = SERVICE_STATUS*;

struct SERVICE_STATUS_PROCESS {
    DWORD dwServiceType;
    DWORD dwCurrentState;
    DWORD dwControlsAccepted;
    DWORD dwWin32ExitCode;
    DWORD dwServiceSpecificExitCode;
    DWORD dwCheckPoint;
    DWORD dwWaitHint;
    DWORD dwProcessId;  // 0 where it is stopped
    DWORD dwServiceFlags;
};

struct ENUM_SERVICE_STATUSW {
    wchar_t* lpServiceName;
    wchar_t* lpDisplayName;
    SERVICE_STATUS ServiceStatus;
};

struct ENUM_SERVICE_STATUS_PROCESSW {
    wchar_t* lpServiceName;
    wchar_t* lpDisplayName;
    SERVICE_STATUS_PROCESS ServiceStatusProcess;
};

struct QUERY_SERVICE_CONFIGW {
    DWORD dwServiceType;
    DWORD dwStartType;
    DWORD dwErrorControl;
    wchar_t* lpBinaryPathName;
    wchar_t* lpLoadOrderGroup;
    DWORD dwTagId;
    wchar_t* lpDependencies;  // texts with terminators, one more terminator at the end
    wchar_t* lpServiceStartName;
    wchar_t* lpDisplayName;
};

struct SERVICE_DESCRIPTIONW {
    wchar_t* lpDescription;
};

enum SC_ACTION_TYPE {
    SC_ACTION_NONE = 0,
    SC_ACTION_RESTART = 1,
    SC_ACTION_REBOOT = 2,
    SC_ACTION_RUN_COMMAND = 3,
};

struct SC_ACTION {
    SC_ACTION_TYPE Type;
    DWORD Delay;  // milliseconds
};

struct SERVICE_FAILURE_ACTIONSW {
    DWORD dwResetPeriod;  // seconds, INFINITE for never
    wchar_t* lpRebootMsg;
    wchar_t* lpCommand;
    DWORD cActions;
    SC_ACTION* lpsaActions;
};

struct SERVICE_FAILURE_ACTIONS_FLAG {
    BOOL fFailureActionsOnNonCrashFailures;
};

struct SERVICE_DELAYED_AUTO_START_INFO {
    BOOL fDelayedAutostart;
};

enum SC_STATUS_TYPE { SC_STATUS_PROCESS_INFO = 0 };
enum SC_ENUM_TYPE { SC_ENUM_PROCESS_INFO = 0 };

using LPSERVICE_MAIN_FUNCTIONW = void (*)(DWORD argumentCount, wchar_t** arguments);
using LPHANDLER_FUNCTION = void (*)(DWORD control);
using LPHANDLER_FUNCTION_EX = DWORD (*)(DWORD control, DWORD eventType, void* eventData, void* context);

struct SERVICE_TABLE_ENTRYW {
    wchar_t* lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
};

// Handles.

// A manager that has ended, or says nothing to anybody for half a minute, is 1722 (RPC_S_SERVER_UNAVAILABLE) for
// every call, and the handle is of no more use then. Whether it did what was asked is not known.

// Of this machine only: null or its name; others are 1722 (RPC_S_SERVER_UNAVAILABLE). The database is null or
// SERVICES_ACTIVE_DATABASEW, 1065 (ERROR_DATABASE_DOES_NOT_EXIST) otherwise. SC_MANAGER_CONNECT is granted
// always. Generic rights and MAXIMUM_ALLOWED may be asked for, here and with services.
TQLIB_API SC_HANDLE OpenSCManagerW(const wchar_t* machine, const wchar_t* database, DWORD access) noexcept;
// 1060 (ERROR_SERVICE_DOES_NOT_EXIST).
TQLIB_API SC_HANDLE OpenServiceW(SC_HANDLE manager, const wchar_t* name, DWORD access) noexcept;
TQLIB_API BOOL CloseServiceHandle(SC_HANDLE handle) noexcept;

// Records of services. A change is on the disk when the call returns.

// The command line holds the program, in quotation marks where its path has blanks, and its arguments. The
// account is null or LocalSystem for the manager's own user, LocalService or NetworkService (with or without
// "NT AUTHORITY\") for the user nobody, or a user's name with or without a domain; 1057
// (ERROR_INVALID_SERVICE_ACCOUNT) for others, and for any but the manager's own user where that is not root.
// The password is not looked at. Dependencies are names with terminators and one more terminator at the end;
// they need not be there yet, 1059 (ERROR_CIRCULAR_DEPENDENCY) where the service would depend on itself, 87
// for groups. The load order group is kept and means nothing; 87 for a tag. Without a display name it is the
// name. 1073 (ERROR_SERVICE_EXISTS), 1072 (ERROR_SERVICE_MARKED_FOR_DELETE), 1078
// (ERROR_DUPLICATE_SERVICE_NAME) where a name is another service's display name or the other way round. Needs
// SC_MANAGER_CREATE_SERVICE; the handle grants `access`.
TQLIB_API SC_HANDLE CreateServiceW(SC_HANDLE manager, const wchar_t* name, const wchar_t* displayName,
                                   DWORD access, DWORD type, DWORD start, DWORD errorControl,
                                   const wchar_t* commandLine, const wchar_t* group, DWORD* tag,
                                   const wchar_t* dependencies, const wchar_t* account,
                                   const wchar_t* password) noexcept;
// Marks the service; it goes when it is stopped and the last handle of it is closed. 1072
// (ERROR_SERVICE_MARKED_FOR_DELETE). Needs DELETE.
TQLIB_API BOOL DeleteService(SC_HANDLE service) noexcept;
// SERVICE_NO_CHANGE and null leave what there is. Failures as for CreateServiceW. What runs keeps its account
// and command line until its next start. Needs SERVICE_CHANGE_CONFIG.
TQLIB_API BOOL ChangeServiceConfigW(SC_HANDLE service, DWORD type, DWORD start, DWORD errorControl,
                                    const wchar_t* commandLine, const wchar_t* group, DWORD* tag,
                                    const wchar_t* dependencies, const wchar_t* account,
                                    const wchar_t* password, const wchar_t* displayName) noexcept;
// `info` is SERVICE_DESCRIPTIONW, SERVICE_FAILURE_ACTIONSW, SERVICE_DELAYED_AUTO_START_INFO or
// SERVICE_FAILURE_ACTIONS_FLAG, by the level; 124 (ERROR_INVALID_LEVEL) for others. In the first two a null
// text leaves what there is and an empty one removes it; null actions leave actions and reset period, no
// actions remove both. SC_ACTION_REBOOT is 50 (ERROR_NOT_SUPPORTED). Delayed start is for
// SERVICE_AUTO_START, 87 otherwise. Needs SERVICE_CHANGE_CONFIG, with SC_ACTION_RESTART SERVICE_START too.
TQLIB_API BOOL ChangeServiceConfig2W(SC_HANDLE service, DWORD level, void* info) noexcept;
// The same for all services, as the head of this file says: SYSTEM, which root and the manager's user are, may do
// everything. It cannot be changed: 50 (ERROR_NOT_SUPPORTED), as for the SACL. 122 (ERROR_INSUFFICIENT_BUFFER). Needs
// READ_CONTROL.
TQLIB_API BOOL QueryServiceObjectSecurity(SC_HANDLE service, SECURITY_INFORMATION wanted,
                                          PSECURITY_DESCRIPTOR descriptor, DWORD size,
                                          DWORD* needed) noexcept;
TQLIB_API BOOL SetServiceObjectSecurity(SC_HANDLE service, SECURITY_INFORMATION given,
                                        PSECURITY_DESCRIPTOR descriptor) noexcept;
// 122 (ERROR_INSUFFICIENT_BUFFER) with the size needed. Need SERVICE_QUERY_CONFIG.
TQLIB_API BOOL QueryServiceConfigW(SC_HANDLE service, QUERY_SERVICE_CONFIGW* config, DWORD size,
                                   DWORD* needed) noexcept;
TQLIB_API BOOL QueryServiceConfig2W(SC_HANDLE service, DWORD level, BYTE* buffer, DWORD size,
                                    DWORD* needed) noexcept;
// `size` is the buffer's size in characters, then the length without the terminator; 122
// (ERROR_INSUFFICIENT_BUFFER), 1060 (ERROR_SERVICE_DOES_NOT_EXIST). Need SC_MANAGER_CONNECT.
TQLIB_API BOOL GetServiceDisplayNameW(SC_HANDLE manager, const wchar_t* name, wchar_t* displayName,
                                      DWORD* size) noexcept;
TQLIB_API BOOL GetServiceKeyNameW(SC_HANDLE manager, const wchar_t* displayName, wchar_t* name,
                                  DWORD* size) noexcept;

// What services do.

// Returns when the service's main function is about to run, its dependencies running before it. The first
// argument that it gets is the service's name, then come these. 1056 (ERROR_SERVICE_ALREADY_RUNNING), 1058
// (ERROR_SERVICE_DISABLED), 1072 (ERROR_SERVICE_MARKED_FOR_DELETE), 1053 (ERROR_SERVICE_REQUEST_TIMEOUT) for
// a program that ended or did not call StartServiceCtrlDispatcherW in 30 seconds, 1083
// (ERROR_SERVICE_NOT_IN_EXE) for one that has no such service, 1068 (ERROR_SERVICE_DEPENDENCY_FAIL), 1075
// (ERROR_SERVICE_DEPENDENCY_DELETED), 1059 (ERROR_CIRCULAR_DEPENDENCY), 1069 (ERROR_SERVICE_LOGON_FAILED) for
// an account that is no longer there, 2, 3, 5 or what else keeps the program from being run. A start that
// fails leaves the service stopped, with the code as its exit code. Needs SERVICE_START.
TQLIB_API BOOL StartServiceW(SC_HANDLE service, DWORD argumentCount, const wchar_t** arguments) noexcept;
// STOP, PAUSE, CONTINUE, INTERROGATE, PARAMCHANGE, the NETBIND codes and 128 to 255 can be sent, 87 for
// others. Returns when the handler has, with the service's status then; a code that it returned is the
// call's. 1062 (ERROR_SERVICE_NOT_ACTIVE), 1061 (ERROR_SERVICE_CANNOT_ACCEPT_CTRL) in the states start
// pending and stop pending, 1052 (ERROR_INVALID_SERVICE_CONTROL) where it is not accepted: with these three
// the status is set too. 1051 (ERROR_DEPENDENT_SERVICES_RUNNING), 1053 (ERROR_SERVICE_REQUEST_TIMEOUT)
// without an answer in 30 seconds, 1067 (ERROR_PROCESS_ABORTED) where the service ended instead. Needs
// SERVICE_STOP for STOP, SERVICE_INTERROGATE for INTERROGATE, SERVICE_USER_DEFINED_CONTROL from 128 on and
// SERVICE_PAUSE_CONTINUE for the others.
TQLIB_API BOOL ControlService(SC_HANDLE service, DWORD control, SERVICE_STATUS* status) noexcept;
// As last reported. What has ended without a report is stopped with 1067 (ERROR_PROCESS_ABORTED), what was
// not started since the manager was installed or the machine booted with 1077 (ERROR_SERVICE_NEVER_STARTED).
// Need SERVICE_QUERY_STATUS.
TQLIB_API BOOL QueryServiceStatus(SC_HANDLE service, SERVICE_STATUS* status) noexcept;
// 122 (ERROR_INSUFFICIENT_BUFFER) with the size needed, 124 (ERROR_INVALID_LEVEL).
TQLIB_API BOOL QueryServiceStatusEx(SC_HANDLE service, SC_STATUS_TYPE level, BYTE* buffer, DWORD size,
                                    DWORD* needed) noexcept;

// As many services as the buffer holds, by name, and 234 (ERROR_MORE_DATA) with the size needed for the rest
// and where to go on, in `resume`, which is 0 at first and at the end. `type` and `state` say which, one bit
// at least. `group` is null for all, or the name of a load order group, none for services in no group. Need
// SC_MANAGER_ENUMERATE_SERVICE.
TQLIB_API BOOL EnumServicesStatusW(SC_HANDLE manager, DWORD type, DWORD state, ENUM_SERVICE_STATUSW* services,
                                   DWORD size, DWORD* needed, DWORD* count, DWORD* resume) noexcept;
TQLIB_API BOOL EnumServicesStatusExW(SC_HANDLE manager, SC_ENUM_TYPE level, DWORD type, DWORD state,
                                     BYTE* services, DWORD size, DWORD* needed, DWORD* count, DWORD* resume,
                                     const wchar_t* group) noexcept;
// The services that depend on this one, those before others that these depend on in turn: the order in which
// they can be stopped. Needs SERVICE_ENUMERATE_DEPENDENTS.
TQLIB_API BOOL EnumDependentServicesW(SC_HANDLE service, DWORD state, ENUM_SERVICE_STATUSW* services,
                                      DWORD size, DWORD* needed, DWORD* count) noexcept;

// The program of a service.

// Hands the calling thread over to the manager: each service is started by its main function on a thread of
// its own, and controls come to the handlers on this thread, one after the other. Returns when all services
// have reported that they are stopped. A program with one service that has the process to itself needs no
// name in the table. 87 (ERROR_INVALID_PARAMETER) or 13 (ERROR_INVALID_DATA) for a table that is none, 1063
// (ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) for a process that the manager has not started, 1056
// (ERROR_SERVICE_ALREADY_RUNNING) for a second call.
//
// A manager that ends is waited for, while the services run on; what they report meanwhile it hears when it
// is there again.
//
// Where systemd started the process (it set NOTIFY_SOCKET) and no manager did, all services of the table are
// started at once, systemd is told their states, and its signals are their controls
// (docs/service-manager.md).
TQLIB_API BOOL StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW* table) noexcept;
// For a service of the table, while the dispatcher runs: 1063 (ERROR_FAILED_SERVICE_CONTROLLER_CONNECT)
// before, 1060 (ERROR_SERVICE_DOES_NOT_EXIST) for another name. What the handler returns is what the control
// gives to who has sent it. The status handle needs no closing.
TQLIB_API SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerExW(const wchar_t* name,
                                                              LPHANDLER_FUNCTION_EX handler,
                                                              void* context) noexcept;
TQLIB_API SERVICE_STATUS_HANDLE RegisterServiceCtrlHandlerW(const wchar_t* name,
                                                            LPHANDLER_FUNCTION handler) noexcept;
// From any thread. 6 (ERROR_INVALID_HANDLE) for a handle that is none, 13 (ERROR_INVALID_DATA) for a status
// with a state, a type or controls that there are not. After SERVICE_STOPPED the handle serves no more, until
// the service is started again.
TQLIB_API BOOL SetServiceStatus(SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) noexcept;

}  // namespace Quellan::Platform
