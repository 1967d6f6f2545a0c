// What a file handle names.
#pragma once

#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/HandleTable.h"
#include "platform/linux/internal/RangeLocks.h"

namespace Quellan::Corvel::Platform {

class FileObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "file", .closedByCloseHandle = true};

    FileObject(Descriptor descriptor, bool writesThrough) noexcept
        : Object(Kind), m_descriptor(std::move(descriptor)), m_writesThrough(writesThrough) {}

    int Fd() const noexcept { return m_descriptor.Get(); }
    bool WritesThrough() const noexcept { return m_writesThrough; }
    RangeLocks& Locks() noexcept { return m_locks; }

  protected:
    Descriptor m_descriptor;

  private:
    const bool m_writesThrough;
    RangeLocks m_locks;
};

}  // namespace Quellan::Corvel::Platform
