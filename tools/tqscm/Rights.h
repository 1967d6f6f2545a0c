// Who may do what: rights of handles, and what controls need.
#pragma once

#include "TQLib/platform/Win32.h"

namespace tqscm {

// What everybody may ask for, and what the generic rights stand for: to read, write, execute, all.
struct Rights {
    DWORD all;
    DWORD everybodys;
    DWORD generic[4];
};
inline constexpr Rights ManagerRights = {
    .all = SC_MANAGER_ALL_ACCESS,
    .everybodys =
        SC_MANAGER_CONNECT | SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS | READ_CONTROL,
    .generic = {SC_MANAGER_ENUMERATE_SERVICE | SC_MANAGER_QUERY_LOCK_STATUS | READ_CONTROL,
                SC_MANAGER_CREATE_SERVICE | SC_MANAGER_MODIFY_BOOT_CONFIG | READ_CONTROL,
                SC_MANAGER_CONNECT | SC_MANAGER_LOCK | READ_CONTROL, SC_MANAGER_ALL_ACCESS}};
inline constexpr Rights ServiceRights = {
    .all = SERVICE_ALL_ACCESS,
    .everybodys = SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS |
                  SERVICE_INTERROGATE | READ_CONTROL,
    .generic = {
        SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_ENUMERATE_DEPENDENTS | SERVICE_INTERROGATE |
            READ_CONTROL,
        SERVICE_CHANGE_CONFIG | READ_CONTROL,
        SERVICE_START | SERVICE_STOP | SERVICE_PAUSE_CONTINUE | SERVICE_USER_DEFINED_CONTROL | READ_CONTROL,
        SERVICE_ALL_ACCESS}};

// 5 (ERROR_ACCESS_DENIED) for more than the asker may have.
DWORD Grant(const Rights& rights, bool isTrusted, DWORD wanted, DWORD& granted);
// The right that a control needs; none for one that cannot be sent.
DWORD AccessFor(DWORD control);
// What the service must accept for it; nothing for those that always are.
DWORD AcceptanceOf(DWORD control);

}  // namespace tqscm
