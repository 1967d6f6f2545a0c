#include "TQLib/platform/linux/accounts/PrivilegeNames.h"

#include "TQLib/platform/linux/base/Case.h"

#include <algorithm>
#include <array>
#include <linux/capability.h>

namespace Quellan::Platform {

namespace {

using Holder = Privilege::Holder;

constexpr std::uint64_t All(auto... capabilities) noexcept {
    return ((std::uint64_t{1} << capabilities) | ...);
}

// A privilege has the capabilities without which its holder could not do what it is for. Root's are those of which
// the kernel guards nothing, or that its nearest capability would exceed by far.
constexpr auto KnownPrivileges = std::to_array<Privilege>({
    {2, L"SeCreateTokenPrivilege", Holder::Nobody},
    {3, L"SeAssignPrimaryTokenPrivilege", Holder::ByCapabilities, All(CAP_SETUID, CAP_SETGID)},
    {4, L"SeLockMemoryPrivilege", Holder::ByCapabilities, All(CAP_IPC_LOCK)},
    {5, L"SeIncreaseQuotaPrivilege", Holder::ByCapabilities, All(CAP_SYS_RESOURCE)},
    {6, L"SeMachineAccountPrivilege", Holder::Nobody},
    {7, L"SeTcbPrivilege", Holder::Root},
    {8, L"SeSecurityPrivilege", Holder::Root},
    {9, L"SeTakeOwnershipPrivilege", Holder::ByCapabilities, All(CAP_CHOWN)},
    {10, L"SeLoadDriverPrivilege", Holder::ByCapabilities, All(CAP_SYS_MODULE)},
    {11, L"SeSystemProfilePrivilege", Holder::ByCapabilities, All(CAP_PERFMON)},
    {12, L"SeSystemtimePrivilege", Holder::ByCapabilities, All(CAP_SYS_TIME)},
    {13, L"SeProfileSingleProcessPrivilege", Holder::ByCapabilities, All(CAP_PERFMON)},
    {14, L"SeIncreaseBasePriorityPrivilege", Holder::ByCapabilities, All(CAP_SYS_NICE)},
    {15, L"SeCreatePagefilePrivilege", Holder::ByCapabilities, All(CAP_SYS_ADMIN)},
    {16, L"SeCreatePermanentPrivilege", Holder::Nobody},
    {17, L"SeBackupPrivilege", Holder::ByCapabilities, All(CAP_DAC_READ_SEARCH)},
    {18, L"SeRestorePrivilege", Holder::ByCapabilities, All(CAP_DAC_OVERRIDE, CAP_CHOWN, CAP_FOWNER)},
    {19, L"SeShutdownPrivilege", Holder::ByCapabilities, All(CAP_SYS_BOOT)},
    {20, L"SeDebugPrivilege", Holder::ByCapabilities, All(CAP_SYS_PTRACE)},
    {21, L"SeAuditPrivilege", Holder::ByCapabilities, All(CAP_AUDIT_WRITE)},
    {22, L"SeSystemEnvironmentPrivilege", Holder::ByCapabilities, All(CAP_SYS_ADMIN)},
    {23, L"SeChangeNotifyPrivilege", Holder::Everybody},
    {24, L"SeRemoteShutdownPrivilege", Holder::Root},
    {25, L"SeUndockPrivilege", Holder::Nobody},
    {26, L"SeSyncAgentPrivilege", Holder::Nobody},
    {27, L"SeEnableDelegationPrivilege", Holder::Nobody},
    {28, L"SeManageVolumePrivilege", Holder::ByCapabilities, All(CAP_SYS_ADMIN)},
    {29, L"SeImpersonatePrivilege", Holder::ByCapabilities, All(CAP_SETUID, CAP_SETGID)},
    {30, L"SeCreateGlobalPrivilege", Holder::Everybody},
    {31, L"SeTrustedCredManAccessPrivilege", Holder::Nobody},
    {32, L"SeRelabelPrivilege", Holder::Root},
    {33, L"SeIncreaseWorkingSetPrivilege", Holder::Everybody},
    {34, L"SeTimeZonePrivilege", Holder::Root},
    {35, L"SeCreateSymbolicLinkPrivilege", Holder::Everybody},
    {36, L"SeDelegateSessionUserImpersonatePrivilege", Holder::Nobody},
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

const Privilege* FindPrivilege(const LUID& value) noexcept {
    const auto found = std::ranges::find(KnownPrivileges, value.LowPart, &Privilege::number);
    return value.HighPart != 0 || found == KnownPrivileges.end() ? nullptr : &*found;
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

Powers::Powers(DWORD user, const Capabilities& capabilities) noexcept : m_capabilities(capabilities) {
    for (const Privilege& known : KnownPrivileges)
        if (known.holder == Holder::Everybody || (known.holder == Holder::Root && user == 0))
            m_held |= All(known.number);
    m_enabled = m_held;
}

bool Powers::Holds(const Privilege& privilege) const noexcept {
    if (privilege.holder != Holder::ByCapabilities) return (m_held & All(privilege.number)) != 0;
    return (privilege.capabilities & ~m_capabilities.permitted) == 0;
}

bool Powers::Enables(const Privilege& privilege) const noexcept {
    if (privilege.holder != Holder::ByCapabilities) return (m_enabled & All(privilege.number)) != 0;
    return (privilege.capabilities & ~m_capabilities.effective) == 0;
}

void Powers::Enable(const Privilege& privilege) noexcept {
    if (privilege.holder == Holder::ByCapabilities)
        m_capabilities.effective |= privilege.capabilities;
    else
        m_enabled |= All(privilege.number);
}

void Powers::Disable(const Privilege& privilege) noexcept {
    if (privilege.holder == Holder::ByCapabilities)
        m_capabilities.effective &= ~privilege.capabilities;
    else
        m_enabled &= ~All(privilege.number);
}

void Powers::Remove(const Privilege& privilege) noexcept {
    Disable(privilege);
    if (privilege.holder == Holder::ByCapabilities)
        m_capabilities.permitted &= ~privilege.capabilities;
    else
        m_held &= ~All(privilege.number);
}

}  // namespace Quellan::Platform
