// Security attributes of new objects.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecDesc.h"

#include <cstddef>

namespace Quellan::Sarvek {

// The descriptor of an object that is to be made, and whether processes started later inherit its handle: the
// counterpart of the platform's SECURITY_ATTRIBUTES, which `Get` shows to its calls. A value. Failures as
// those of `SecDesc`.
class TQLIB_API SecAttr {
  public:
    // An empty descriptor and a handle that is not inherited.
    SecAttr() : SecAttr(SecDesc()) {}
    explicit SecAttr(SecDesc descriptor, bool inheritsHandle = false);
    SecAttr(const SecAttr& other);
    SecAttr(SecAttr&& other) noexcept;
    SecAttr& operator=(const SecAttr& other);
    SecAttr& operator=(SecAttr&& other) noexcept;
    virtual ~SecAttr();

    [[nodiscard]] const SecDesc& Descriptor() const noexcept { return m_descriptor; }
    [[nodiscard]] bool InheritsHandle() const noexcept { return m_inheritsHandle; }
    // For platform calls, which only read there; valid until this object changes.
    [[nodiscard]] SECURITY_ATTRIBUTES* Get() const noexcept {
        return reinterpret_cast<SECURITY_ATTRIBUTES*>(m_attributes);
    }

    friend bool operator==(const SecAttr& left, const SecAttr& right) noexcept {
        return left.m_inheritsHandle == right.m_inheritsHandle && left.m_descriptor == right.m_descriptor;
    }
    // With the platform's structure; one without a descriptor equals an empty one.
    friend TQLIB_API bool operator==(const SecAttr& left, const SECURITY_ATTRIBUTES& right);

  private:
    // Makes the platform's structure refer to the block here.
    void Refer() noexcept;

    SecDesc m_descriptor;
    Corvel::BYTEBuf m_block;
    bool m_inheritsHandle;
    // The structure, without the platform's header.
    alignas(void*) mutable std::byte m_attributes[24];
};

}  // namespace Quellan::Sarvek
