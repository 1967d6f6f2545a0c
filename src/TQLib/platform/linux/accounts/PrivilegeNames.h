// The privileges and rights that accounts may hold, by name and number.
#pragma once

#include "TQLib/platform/linux/base/Identity.h"

#include <span>
#include <string_view>

namespace Quellan::Platform {

struct Privilege {
    DWORD number;
    const wchar_t* name;
    int capability;  // the kernel's counterpart; or one of these
    static constexpr int Everybody = -1;
    static constexpr int Nobody = -2;
};

std::span<const Privilege> Privileges() noexcept;
// In any case; null for what is none.
const Privilege* FindPrivilege(std::wstring_view name) noexcept;
// A privilege or a right to log on. Null, or the published spelling.
const wchar_t* FindAccountRight(std::wstring_view name) noexcept;

// What accounts hold on a machine whose policy nobody has changed, as the file of account rights says it.
std::string_view DefaultAccountRights() noexcept;

// Bit n stands for privilege n.
std::uint64_t PrivilegesOf(std::uint64_t capabilities) noexcept;

}  // namespace Quellan::Platform
