// Security identifiers with attributes.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecID.h"

#include <compare>
#include <functional>

namespace Quellan::Sarvek {

// An identifier and its attributes, such as SE_GROUP_ENABLED: a value, the counterpart of the platform's
// SID_AND_ATTRIBUTES, with which it can be compared. Ordered by the identifier, then by the attributes. The
// rules for threads are those of `SecID`.
class TQLIB_API SecIDAttr {
  public:
    // The null identifier without attributes.
    SecIDAttr() noexcept = default;
    explicit SecIDAttr(SecID id, DWORD attributes = 0) noexcept
        : m_id(std::move(id)), m_attributes(attributes) {}
    // A copy. Throws 1337 (ERROR_INVALID_SID) where its address is of no identifier.
    explicit SecIDAttr(const SID_AND_ATTRIBUTES& pair);
    SecIDAttr(const SecIDAttr&) = default;
    SecIDAttr(SecIDAttr&&) noexcept = default;
    SecIDAttr& operator=(const SecIDAttr&) = default;
    SecIDAttr& operator=(SecIDAttr&&) noexcept = default;
    virtual ~SecIDAttr();

    [[nodiscard]] const SecID& SID() const noexcept { return m_id; }
    [[nodiscard]] DWORD Attributes() const noexcept { return m_attributes; }

    friend bool operator==(const SecIDAttr&, const SecIDAttr&) noexcept = default;
    friend std::strong_ordering operator<=>(const SecIDAttr&, const SecIDAttr&) noexcept = default;
    friend TQLIB_API bool operator==(const SecIDAttr& left, const SID_AND_ATTRIBUTES& right) noexcept;
    friend TQLIB_API std::partial_ordering operator<=>(const SecIDAttr& left,
                                                       const SID_AND_ATTRIBUTES& right) noexcept;

  private:
    SecID m_id;
    DWORD m_attributes = 0;
};

}  // namespace Quellan::Sarvek

template <>
struct std::hash<Quellan::Sarvek::SecIDAttr> {
    std::size_t operator()(const Quellan::Sarvek::SecIDAttr& pair) const noexcept {
        return std::hash<Quellan::Sarvek::SecID>{}(pair.SID()) * 31 + pair.Attributes();
    }
};
