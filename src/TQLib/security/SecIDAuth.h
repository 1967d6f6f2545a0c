// The authorities of security identifiers.
#pragma once

#include "TQLib/platform/Types.h"

#include <array>
#include <compare>
#include <cstddef>
#include <functional>

namespace Quellan::Sarvek {

// The authority that issued a security identifier: a number of 48 bits, which the platform's
// SID_IDENTIFIER_AUTHORITY holds as six bytes, the highest first. A value; the platform's structure converts,
// so the two can be compared. The order is that of the numbers.
class TQLIB_API SecIDAuth {
  public:
    // The null authority.
    SecIDAuth() noexcept = default;
    // Throws `TQException` 87 (ERROR_INVALID_PARAMETER) for a number of more than 48 bits.
    explicit SecIDAuth(ULONGLONG value);
    SecIDAuth(const SID_IDENTIFIER_AUTHORITY& authority) noexcept;
    SecIDAuth(const SecIDAuth&) noexcept = default;
    SecIDAuth& operator=(const SecIDAuth&) noexcept = default;
    virtual ~SecIDAuth();

    [[nodiscard]] static SecIDAuth NullSecIDAuth() noexcept;       // 0
    static SecIDAuth WorldSecIDAuth() noexcept;                    // 1
    [[nodiscard]] static SecIDAuth LocalSecIDAuth() noexcept;      // 2
    static SecIDAuth CreatorSecIDAuth() noexcept;                  // 3
    [[nodiscard]] static SecIDAuth NonUniqueSecIDAuth() noexcept;  // 4
    static SecIDAuth NTSecIDAuth() noexcept;                       // 5

    [[nodiscard]] ULONGLONG Value() const noexcept { return ULONGLONG{m_high} << 16 | m_low; }
    // The highest first.
    [[nodiscard]] std::array<BYTE, 6> Values() const noexcept;

    friend bool operator==(const SecIDAuth&, const SecIDAuth&) noexcept = default;
    friend std::strong_ordering operator<=>(const SecIDAuth&, const SecIDAuth&) noexcept = default;

  private:
    DWORD m_high = 0;  // compared first
    WORD m_low = 0;
};

}  // namespace Quellan::Sarvek

template <>
struct std::hash<Quellan::Sarvek::SecIDAuth> {
    std::size_t operator()(const Quellan::Sarvek::SecIDAuth& authority) const noexcept {
        return std::hash<unsigned long long>{}(authority.Value());
    }
};
