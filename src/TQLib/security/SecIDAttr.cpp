#include "TQLib/security/SecIDAttr.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Sarvek {

SecIDAttr::SecIDAttr(const SID_AND_ATTRIBUTES& pair) : m_id(pair.Sid), m_attributes(pair.Attributes) {}

SecIDAttr::~SecIDAttr() = default;

bool operator==(const SecIDAttr& left, const SID_AND_ATTRIBUTES& right) noexcept {
    return (left <=> right) == 0;
}

std::partial_ordering operator<=>(const SecIDAttr& left, const SID_AND_ATTRIBUTES& right) noexcept {
    const std::partial_ordering order = left.SID() <=> right.Sid;
    return order == 0 ? left.Attributes() <=> right.Attributes : order;
}

}  // namespace Quellan::Sarvek
