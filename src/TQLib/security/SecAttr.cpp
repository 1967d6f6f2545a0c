#include "TQLib/security/SecAttr.h"

#include "TQLib/platform/Platform.h"

#include <new>
#include <utility>

namespace Quellan::Sarvek {

SecAttr::SecAttr(SecDesc descriptor, bool inheritsHandle)
    : m_descriptor(std::move(descriptor)), m_block(m_descriptor.Block()), m_inheritsHandle(inheritsHandle) {
    Refer();
}

SecAttr::SecAttr(const SecAttr& other)
    : m_descriptor(other.m_descriptor), m_block(other.m_block), m_inheritsHandle(other.m_inheritsHandle) {
    Refer();
}

SecAttr::SecAttr(SecAttr&& other) noexcept
    : m_descriptor(std::move(other.m_descriptor)),
      m_block(std::move(other.m_block)),
      m_inheritsHandle(other.m_inheritsHandle) {
    Refer();
    other.Refer();
}

SecAttr& SecAttr::operator=(const SecAttr& other) {
    return *this = SecAttr(other);
}

SecAttr& SecAttr::operator=(SecAttr&& other) noexcept {
    std::swap(m_descriptor, other.m_descriptor);
    m_block.Swap(other.m_block);
    std::swap(m_inheritsHandle, other.m_inheritsHandle);
    Refer();
    other.Refer();
    return *this;
}

SecAttr::~SecAttr() = default;

bool operator==(const SecAttr& left, const SECURITY_ATTRIBUTES& right) {
    const bool hasDescriptor = right.lpSecurityDescriptor != nullptr;
    return left.m_inheritsHandle == (right.bInheritHandle != FALSE) &&
           left.m_descriptor == (hasDescriptor ? SecDesc(right.lpSecurityDescriptor) : SecDesc());
}

void SecAttr::Refer() noexcept {
    static_assert(sizeof m_attributes == sizeof(SECURITY_ATTRIBUTES));
    auto* const attributes = new (m_attributes) SECURITY_ATTRIBUTES{};
    attributes->nLength = sizeof *attributes;
    attributes->lpSecurityDescriptor = m_block.IsEmpty() ? nullptr : m_block.Data();
    attributes->bInheritHandle = m_inheritsHandle;
}

}  // namespace Quellan::Sarvek
