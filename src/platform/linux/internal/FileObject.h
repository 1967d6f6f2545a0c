// What a file handle names.
#pragma once

#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/HandleTable.h"

namespace Quellan::Corvel::Platform {

class FileObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "file", .closedByCloseHandle = true};

    explicit FileObject(Descriptor descriptor) noexcept : Object(Kind), m_descriptor(std::move(descriptor)) {}

    int Fd() const noexcept { return m_descriptor.Get(); }

  protected:
    Descriptor m_descriptor;
};

}  // namespace Quellan::Corvel::Platform
