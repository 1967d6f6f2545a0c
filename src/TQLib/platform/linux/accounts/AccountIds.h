// How the system's users and groups are numbered as identifiers of the machine's domain.
//
// The machine's domain S-1-5-21-a-b-c comes from a hash of its machine id (/etc/machine-id, or the one that
// D-Bus keeps; where there is none, of its host name), from which the id cannot be found. User 0 has the
// number 500, every other user u the number 2u + 1000, group g the number 2g + 1001. Ids above
// MostAccountId have no identifier.
#pragma once

#include "TQLib/platform/linux/accounts/SidValue.h"

#include <optional>

namespace Quellan::Platform {

constexpr DWORD MostAccountId = 0x7FFFFE0B;

struct AccountId {
    bool isGroup;
    DWORD id;

    bool operator==(const AccountId&) const = default;
};

const SidValue& MachineDomain() noexcept;
std::optional<SidValue> SidOfAccount(AccountId account) noexcept;
// Nothing for identifiers of other domains and numbers that no account has.
std::optional<AccountId> AccountOfSid(const void* sid) noexcept;

// The machine's domain or an identifier of it.
bool IsOfMachineDomain(const void* sid) noexcept;

}  // namespace Quellan::Platform
