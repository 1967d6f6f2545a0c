// What generic rights stand for.
#pragma once

#include "TQLib/platform/GenericRights.h"
#include "TQLib/platform/Types.h"

namespace Quellan::Sarvek {

// The rights that reading, writing, executing and everything mean for one kind of objects: a value, the
// counterpart of the platform's GENERIC_MAPPING, whose members are these in the same order. Nothing here throws.
class SecGenericMap {
  public:
    constexpr SecGenericMap() noexcept = default;
    constexpr SecGenericMap(DWORD read, DWORD write, DWORD execute, DWORD all) noexcept
        : m_rights{read, write, execute, all} {}

    [[nodiscard]] static constexpr SecGenericMap OfFiles() noexcept {
        return {0x120089, 0x120116, 0x1200A0, 0x1F01FF};
    }
    [[nodiscard]] static constexpr SecGenericMap OfKeys() noexcept {
        return {0x20019, 0x20006, 0x20019, 0xF003F};
    }

    [[nodiscard]] constexpr DWORD Read() const noexcept { return m_rights.read; }
    [[nodiscard]] constexpr DWORD Write() const noexcept { return m_rights.write; }
    [[nodiscard]] constexpr DWORD Execute() const noexcept { return m_rights.execute; }
    [[nodiscard]] constexpr DWORD All() const noexcept { return m_rights.all; }

    // The rights with what the generic ones among them (GENERIC_READ and its like) stand for in their place.
    [[nodiscard]] constexpr DWORD Map(DWORD rights) const noexcept {
        return Platform::MapGenericRights(m_rights, rights);
    }

    friend constexpr bool operator==(const SecGenericMap& left, const SecGenericMap& right) noexcept {
        return left.Read() == right.Read() && left.Write() == right.Write() &&
               left.Execute() == right.Execute() && left.All() == right.All();
    }

  private:
    friend class SecAccess;

    Platform::GenericRights m_rights;
};

}  // namespace Quellan::Sarvek
