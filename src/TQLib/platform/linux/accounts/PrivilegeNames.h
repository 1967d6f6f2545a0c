// The privileges and rights that accounts may hold, by name and number.
#pragma once

#include "TQLib/platform/linux/accounts/Privileges.h"
#include "TQLib/platform/linux/base/Identity.h"

#include <span>
#include <string_view>

namespace Quellan::Platform {

struct Privilege {
    // Who holds it: whom the kernel permits all of its capabilities, or by the layer's own rule.
    enum class Holder { ByCapabilities, Root, Everybody, Nobody };

    DWORD number;
    const wchar_t* name;
    Holder holder;
    std::uint64_t capabilities = 0;  // bit n stands for capability n
};

std::span<const Privilege> Privileges() noexcept;
// Null for what is none.
const Privilege* FindPrivilege(const LUID& value) noexcept;
// In any case; null for what is none.
const Privilege* FindPrivilege(std::wstring_view name) noexcept;
// A privilege or a right to log on. Null, or the published spelling.
const wchar_t* FindAccountRight(std::wstring_view name) noexcept;

// What accounts hold on a machine whose policy nobody has changed, as the file of account rights says it.
std::string_view DefaultAccountRights() noexcept;

// What somebody may: capabilities of the kernel, and the privileges that the layer alone keeps. Privileges with a
// capability in common go together: where one is disabled, what needs its capabilities is too.
class Powers {
  public:
    Powers() = default;
    // Everything that is effective is enabled, and of what the layer keeps all.
    Powers(DWORD user, const Capabilities& capabilities) noexcept;

    const Capabilities& OfKernel() const noexcept { return m_capabilities; }
    // Of what the layer keeps no more than `other`.
    void LimitKept(const Powers& other) noexcept {
        m_held &= other.m_held;
        m_enabled &= other.m_enabled;
    }

    bool Holds(const Privilege& privilege) const noexcept;
    bool Enables(const Privilege& privilege) const noexcept;
    // One that is held.
    void Enable(const Privilege& privilege) noexcept;
    void Disable(const Privilege& privilege) noexcept;
    void Remove(const Privilege& privilege) noexcept;  // for good

  private:
    Capabilities m_capabilities{};
    std::uint64_t m_held = 0;  // of what the layer keeps; bit n stands for privilege n
    std::uint64_t m_enabled = 0;
};

}  // namespace Quellan::Platform
