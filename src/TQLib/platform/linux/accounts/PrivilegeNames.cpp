#include "TQLib/platform/linux/accounts/PrivilegeNames.h"

#include "TQLib/platform/linux/base/Case.h"

#include <algorithm>
#include <array>
#include <linux/capability.h>

namespace Quellan::Platform {

namespace {

constexpr auto KnownPrivileges = std::to_array<Privilege>({
    {2, L"SeCreateTokenPrivilege", Privilege::Nobody},
    {3, L"SeAssignPrimaryTokenPrivilege", CAP_SETUID},
    {4, L"SeLockMemoryPrivilege", CAP_IPC_LOCK},
    {5, L"SeIncreaseQuotaPrivilege", CAP_SYS_RESOURCE},
    {6, L"SeMachineAccountPrivilege", Privilege::Nobody},
    {7, L"SeTcbPrivilege", CAP_SYS_ADMIN},
    {8, L"SeSecurityPrivilege", CAP_AUDIT_CONTROL},
    {9, L"SeTakeOwnershipPrivilege", CAP_CHOWN},
    {10, L"SeLoadDriverPrivilege", CAP_SYS_MODULE},
    {11, L"SeSystemProfilePrivilege", CAP_PERFMON},
    {12, L"SeSystemtimePrivilege", CAP_SYS_TIME},
    {13, L"SeProfileSingleProcessPrivilege", CAP_PERFMON},
    {14, L"SeIncreaseBasePriorityPrivilege", CAP_SYS_NICE},
    {15, L"SeCreatePagefilePrivilege", CAP_SYS_ADMIN},
    {16, L"SeCreatePermanentPrivilege", Privilege::Nobody},
    {17, L"SeBackupPrivilege", CAP_DAC_READ_SEARCH},
    {18, L"SeRestorePrivilege", CAP_DAC_OVERRIDE},
    {19, L"SeShutdownPrivilege", CAP_SYS_BOOT},
    {20, L"SeDebugPrivilege", CAP_SYS_PTRACE},
    {21, L"SeAuditPrivilege", CAP_AUDIT_WRITE},
    {22, L"SeSystemEnvironmentPrivilege", CAP_SYS_ADMIN},
    {23, L"SeChangeNotifyPrivilege", Privilege::Everybody},
    {24, L"SeRemoteShutdownPrivilege", CAP_SYS_BOOT},
    {25, L"SeUndockPrivilege", Privilege::Nobody},
    {26, L"SeSyncAgentPrivilege", Privilege::Nobody},
    {27, L"SeEnableDelegationPrivilege", Privilege::Nobody},
    {28, L"SeManageVolumePrivilege", CAP_SYS_ADMIN},
    {29, L"SeImpersonatePrivilege", CAP_SETUID},
    {30, L"SeCreateGlobalPrivilege", Privilege::Everybody},
    {31, L"SeTrustedCredManAccessPrivilege", Privilege::Nobody},
    {32, L"SeRelabelPrivilege", CAP_MAC_ADMIN},
    {33, L"SeIncreaseWorkingSetPrivilege", Privilege::Everybody},
    {34, L"SeTimeZonePrivilege", CAP_SYS_TIME},
    {35, L"SeCreateSymbolicLinkPrivilege", Privilege::Everybody},
    {36, L"SeDelegateSessionUserImpersonatePrivilege", Privilege::Nobody},
});

constexpr const wchar_t* LogonRights[] = {
    L"SeInteractiveLogonRight",
    L"SeNetworkLogonRight",
    L"SeBatchLogonRight",
    L"SeServiceLogonRight",
    L"SeRemoteInteractiveLogonRight",
    L"SeDenyInteractiveLogonRight",
    L"SeDenyNetworkLogonRight",
    L"SeDenyBatchLogonRight",
    L"SeDenyServiceLogonRight",
    L"SeDenyRemoteInteractiveLogonRight",
};

constexpr std::string_view Defaults =
    "# Everyone\n"
    "S-1-1-0 SeNetworkLogonRight SeChangeNotifyPrivilege\n"
    "# SERVICE\n"
    "S-1-5-6 SeImpersonatePrivilege SeCreateGlobalPrivilege\n"
    "# LOCAL SERVICE\n"
    "S-1-5-19 SeAssignPrimaryTokenPrivilege SeIncreaseQuotaPrivilege SeSystemtimePrivilege SeAuditPrivilege "
    "SeChangeNotifyPrivilege SeImpersonatePrivilege SeCreateGlobalPrivilege SeIncreaseWorkingSetPrivilege "
    "SeTimeZonePrivilege\n"
    "# NETWORK SERVICE\n"
    "S-1-5-20 SeAssignPrimaryTokenPrivilege SeIncreaseQuotaPrivilege SeAuditPrivilege "
    "SeChangeNotifyPrivilege SeImpersonatePrivilege SeCreateGlobalPrivilege SeIncreaseWorkingSetPrivilege\n"
    "# BUILTIN\\Administrators\n"
    "S-1-5-32-544 SeInteractiveLogonRight SeNetworkLogonRight SeBatchLogonRight "
    "SeRemoteInteractiveLogonRight "
    "SeIncreaseQuotaPrivilege SeSecurityPrivilege SeTakeOwnershipPrivilege SeLoadDriverPrivilege "
    "SeSystemProfilePrivilege SeSystemtimePrivilege SeProfileSingleProcessPrivilege "
    "SeIncreaseBasePriorityPrivilege SeCreatePagefilePrivilege SeBackupPrivilege SeRestorePrivilege "
    "SeShutdownPrivilege SeDebugPrivilege SeSystemEnvironmentPrivilege SeChangeNotifyPrivilege "
    "SeRemoteShutdownPrivilege SeUndockPrivilege SeManageVolumePrivilege SeImpersonatePrivilege "
    "SeCreateGlobalPrivilege SeTimeZonePrivilege SeCreateSymbolicLinkPrivilege "
    "SeDelegateSessionUserImpersonatePrivilege\n"
    "# BUILTIN\\Users\n"
    "S-1-5-32-545 SeInteractiveLogonRight SeNetworkLogonRight SeShutdownPrivilege SeChangeNotifyPrivilege "
    "SeUndockPrivilege SeIncreaseWorkingSetPrivilege SeTimeZonePrivilege\n"
    "# BUILTIN\\Backup Operators\n"
    "S-1-5-32-551 SeInteractiveLogonRight SeNetworkLogonRight SeBatchLogonRight SeBackupPrivilege "
    "SeRestorePrivilege SeShutdownPrivilege SeChangeNotifyPrivilege\n"
    "# BUILTIN\\Remote Desktop Users, BUILTIN\\Performance Log Users\n"
    "S-1-5-32-555 SeRemoteInteractiveLogonRight\n"
    "S-1-5-32-559 SeBatchLogonRight\n"
    "# All services\n"
    "S-1-5-80-0 SeServiceLogonRight\n";

}  // namespace

std::span<const Privilege> Privileges() noexcept {
    return KnownPrivileges;
}

const Privilege* FindPrivilege(std::wstring_view name) noexcept {
    const auto found = std::ranges::find_if(
        KnownPrivileges, [&](const Privilege& known) { return CompareOrdinal(known.name, name, true) == 0; });
    return found == KnownPrivileges.end() ? nullptr : &*found;
}

const wchar_t* FindAccountRight(std::wstring_view name) noexcept {
    if (const Privilege* privilege = FindPrivilege(name)) return privilege->name;
    for (const wchar_t* right : LogonRights)
        if (CompareOrdinal(right, name, true) == 0) return right;
    return nullptr;
}

std::string_view DefaultAccountRights() noexcept {
    return Defaults;
}

std::uint64_t PrivilegesOf(std::uint64_t capabilities) noexcept {
    std::uint64_t held = 0;
    for (const Privilege& known : KnownPrivileges) {
        const bool isHeld = known.capability == Privilege::Everybody ||
                            (known.capability >= 0 && capabilities >> known.capability & 1);
        if (isHeld) held |= std::uint64_t{1} << known.number;
    }
    return held;
}

}  // namespace Quellan::Platform
