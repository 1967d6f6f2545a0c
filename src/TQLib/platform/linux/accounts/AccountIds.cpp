#include "TQLib/platform/linux/accounts/AccountIds.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Sha256.h"

#include <limits.h>

namespace Quellan::Platform {

namespace {

constexpr DWORD FirstUser = 1000;
constexpr DWORD FirstGroup = 1001;
static_assert(std::uint64_t{MostAccountId} * 2 + FirstGroup == 0xFFFFFFFF);

constexpr std::size_t MachineIdSize = 32;

// Empty for a machine that has none yet.
std::string_view ReadMachineId(char (&buffer)[64]) noexcept {
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        const std::string_view id = ReadStart(path, buffer).substr(0, MachineIdSize);
        if (id.size() == MachineIdSize && id.find_first_not_of("0123456789abcdef") == id.npos) return id;
    }
    return {};
}

SidValue MakeMachineDomain() noexcept {
    constexpr std::string_view Purpose = "TQLib machine domain ";
    char idBuffer[64];
    char hostBuffer[HOST_NAME_MAX + 1] = {};
    std::string_view name = ReadMachineId(idBuffer);
    if (name.empty() && gethostname(hostBuffer, sizeof hostBuffer - 1) == 0) name = hostBuffer;
    char text[Purpose.size() + sizeof hostBuffer];
    char* const end = std::copy(name.begin(), name.end(), std::copy(Purpose.begin(), Purpose.end(), text));
    const auto hash = Sha256({text, static_cast<std::size_t>(end - text)});
    return SidValue(5, {SECURITY_NT_NON_UNIQUE, hash[0], hash[1], hash[2]});
}

}  // namespace

const SidValue& MachineDomain() noexcept {
    static const SidValue domain = MakeMachineDomain();
    return domain;
}

std::optional<SidValue> SidOfAccount(AccountId account) noexcept {
    if (account.id > MostAccountId) return std::nullopt;
    if (account.isGroup) return MachineDomain().With(account.id * 2 + FirstGroup);
    return MachineDomain().With(account.id == 0 ? DOMAIN_USER_RID_ADMIN : account.id * 2 + FirstUser);
}

std::optional<AccountId> AccountOfSid(const void* sid) noexcept {
    const SidValue& domain = MachineDomain();
    if (SubAuthoritiesOf(sid) != domain.count + 1 || !IsOfMachineDomain(sid)) return std::nullopt;
    const DWORD rid = SubAuthorityOf(sid, domain.count);
    if (rid == DOMAIN_USER_RID_ADMIN) return AccountId{.isGroup = false, .id = 0};
    if (rid <= FirstUser) return std::nullopt;
    if (rid % 2 == FirstGroup % 2) return AccountId{.isGroup = true, .id = (rid - FirstGroup) / 2};
    return AccountId{.isGroup = false, .id = (rid - FirstUser) / 2};
}

bool IsOfMachineDomain(const void* sid) noexcept {
    const SidValue& domain = MachineDomain();
    if (SubAuthoritiesOf(sid) < domain.count || AuthorityOf(sid) != AuthorityOf(&domain)) return false;
    for (unsigned i = 0; i < domain.count; ++i)
        if (SubAuthorityOf(sid, i) != domain.subAuthorities[i]) return false;
    return true;
}

}  // namespace Quellan::Platform
