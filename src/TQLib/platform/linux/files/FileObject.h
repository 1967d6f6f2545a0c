// What a file handle names.
#pragma once

#include "TQLib/platform/linux/base/Durable.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/files/RangeLocks.h"
#include "TQLib/platform/linux/files/SecurityDescriptors.h"

namespace Quellan::Platform {

struct OpenedFile {
    Descriptor file;
    Durable::FileIdentity id{};
    std::uint64_t fixedSize = 0;  // of a plain file that nobody may write as long as it is open, or 0
    bool isPlain = false;         // no device, pipe or folder
};

class FileObject : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "file",
                                     .closedByCloseHandle = true,
                                     .rights = {.read = FILE_GENERIC_READ,
                                                .write = FILE_GENERIC_WRITE,
                                                .execute = FILE_GENERIC_EXECUTE,
                                                .all = FILE_ALL_ACCESS},
                                     .grantsNoMore = true};

    FileObject(OpenedFile opened, bool writesThrough) noexcept
        : Object(Kind),
          m_file(std::move(opened.file)),
          m_fd(m_file.Get()),
          m_id(opened.id),
          m_fixedSize(opened.fixedSize),
          m_isPlain(opened.isPlain),
          m_writesThrough(writesThrough) {}

    int Fd() const noexcept { return m_fd; }
    Durable::FileIdentity Id() const noexcept { return m_id; }
    std::uint64_t FixedSize() const noexcept { return m_fixedSize; }
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
    const Durable::FileIdentity m_id{};
    const std::uint64_t m_fixedSize = 0;
    const bool m_isPlain;
    const bool m_writesThrough;
};

}  // namespace Quellan::Platform
