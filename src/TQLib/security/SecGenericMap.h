// What generic rights mean to one kind of objects.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Sarvek {

// The counterpart of the platform's GENERIC_MAPPING. A value without failures, for any thread.
class SecGenericMap {
  public:
    constexpr SecGenericMap(DWORD read, DWORD write, DWORD execute, DWORD all) noexcept
        : m_read(read), m_write(write), m_execute(execute), m_all(all) {}

    // Those of the platform.
    static constexpr SecGenericMap Files() noexcept { return {0x120089, 0x120116, 0x1200A0, 0x1F01FF}; }
    static constexpr SecGenericMap Keys() noexcept { return {0x20019, 0x20006, 0x20019, 0xF003F}; }
    static constexpr SecGenericMap Services() noexcept { return {0x2008D, 0x20002, 0x20170, 0xF01FF}; }

    [[nodiscard]] constexpr DWORD Read() const noexcept { return m_read; }
    [[nodiscard]] constexpr DWORD Write() const noexcept { return m_write; }
    [[nodiscard]] constexpr DWORD Execute() const noexcept { return m_execute; }
    [[nodiscard]] constexpr DWORD All() const noexcept { return m_all; }

    // The generic rights, which `Map` replaces.
    static constexpr DWORD Generic = 0xF0000000;

    // The same rights without generic ones; all others stay as they are.
    [[nodiscard]] constexpr DWORD Map(DWORD rights) const noexcept {
        DWORD mapped = rights & ~Generic;
        if (rights & 0x80000000) mapped |= m_read;
        if (rights & 0x40000000) mapped |= m_write;
        if (rights & 0x20000000) mapped |= m_execute;
        if (rights & 0x10000000) mapped |= m_all;
        return mapped;
    }

    friend constexpr bool operator==(const SecGenericMap&, const SecGenericMap&) noexcept = default;

  private:
    DWORD m_read;
    DWORD m_write;
    DWORD m_execute;
    DWORD m_all;
};

}  // namespace Quellan::Sarvek
