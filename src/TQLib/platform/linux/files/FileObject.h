// What a file handle names.
#pragma once

#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/files/RangeLocks.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

namespace Quellan::Platform {

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
          m_file(std::move(descriptor)),
          m_fd(m_file.Get()),
          m_id(Durable::IdentityOf(m_fd)),
          m_isPlain(isPlain),
          m_writesThrough(writesThrough) {}

    int Fd() const noexcept { return m_fd; }
    Durable::Identity Id() const noexcept { return m_id; }
    // Whether it is a file and no device, pipe or folder.
    bool IsPlain() const noexcept { return m_isPlain; }
    bool WritesThrough() const noexcept { return m_writesThrough; }
    // Whether locks on its ranges exclude all others.
    bool OwnsLocks() const noexcept { return m_file.OwnsLocks(); }
    RangeLocks& Locks() noexcept { return m_file.locks; }

  protected:
    // For a descriptor that is somebody else's.
    explicit FileObject(int fd) noexcept
        : Object(Kind), m_file(Descriptor()), m_fd(fd), m_isPlain(false), m_writesThrough(false) {}

  private:
    struct File : ProcessDescriptor {
        using ProcessDescriptor::ProcessDescriptor;
        void OpenAnew(const Descriptor&) noexcept override { locks.Forget(); }

        RangeLocks locks;
    };

    File m_file;
    const int m_fd;
    const Durable::Identity m_id{};
    const bool m_isPlain;
    const bool m_writesThrough;
};

}  // namespace Quellan::Platform
