// What a file handle names.
#pragma once

#include "platform/linux/SecurityDescriptors.h"
#include "platform/linux/internal/Descriptor.h"
#include "platform/linux/internal/HandleTable.h"
#include "platform/linux/internal/RangeLocks.h"

namespace Quellan::Corvel::Platform {

class FileObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "file",
                                     .closedByCloseHandle = true,
                                     .rights = {.read = FILE_GENERIC_READ,
                                                .write = FILE_GENERIC_WRITE,
                                                .execute = FILE_GENERIC_EXECUTE,
                                                .all = FILE_ALL_ACCESS},
                                     .grantsNoMore = true};

    FileObject(Descriptor descriptor, bool isPlain, bool writesThrough) noexcept
        : Object(Kind),
          m_descriptor(std::move(descriptor)),
          m_isPlain(isPlain),
          m_writesThrough(writesThrough) {}

    int Fd() const noexcept { return m_descriptor.Get(); }
    // Whether it is a file and no device, pipe or folder.
    bool IsPlain() const noexcept { return m_isPlain; }
    bool WritesThrough() const noexcept { return m_writesThrough; }
    RangeLocks& Locks() noexcept { return m_locks; }

  protected:
    Descriptor m_descriptor;

  private:
    const bool m_isPlain;
    const bool m_writesThrough;
    RangeLocks m_locks;
};

}  // namespace Quellan::Corvel::Platform
