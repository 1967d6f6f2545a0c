// Open files.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/files/TQFileName.h"
#include "TQLib/platform/Types.h"
#include "TQLib/security/SecAttr.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"

#include <optional>

namespace Quellan::Corvel {

// A file that is open until this object ends or closes it. Rights, dispositions and flags are the platform's,
// passed as numbers (FILE_GENERIC_READ, OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH). The position belongs to the
// file: several threads may use one object as long as they take turns where the position counts.
//
// Failures of the platform are thrown as `TQSysException` with its code, 6 (ERROR_INVALID_HANDLE) for a
// closed file.
class TQLIB_API _TQFile : public TQObject {
  public:
    // What others may do with the file meanwhile. The values are the platform's and can be combined.
    enum class FileShare : DWORD { Nothing = 0, Read = 1, Write = 2, Delete = 4 };
    friend constexpr FileShare operator|(FileShare left, FileShare right) noexcept {
        return static_cast<FileShare>(static_cast<DWORD>(left) | static_cast<DWORD>(right));
    }

    enum class Origin : DWORD { Begin = 0, Current = 1, End = 2 };

    // Opens the file or makes it, by `disposition`; a new one gets the security.
    _TQFile(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, FileShare share,
            const Sarvek::SecAttr& security);
    _TQFile(const _TQFile&) = delete;
    _TQFile& operator=(const _TQFile&) = delete;
    ~_TQFile() override;

    [[nodiscard]] STLString Description() const override;

    [[nodiscard]] const TQFileName& FileName() const noexcept { return m_name; }
    [[nodiscard]] bool IsOpen() const noexcept { return m_file.IsValid(); }
    void Close() noexcept { m_file.Close(); }

    [[nodiscard]] ULONGLONG Size() const;
    // Nothing where the file's name does not lead to it. It may have been moved or deleted since it was
    // opened, on Windows only where it is shared for that, on Linux by any program that keeps to no share
    // modes.
    [[nodiscard]] std::optional<ULONGLONG> SizeAtItsName() const;
    // The new position.
    ULONGLONG Seek(LONGLONG distance, Origin origin);
    // How many bytes there were, fewer than `size` at the end of the file alone.
    DWORD Read(void* buffer, DWORD size);
    // All of them, in one call of the platform, or an exception.
    void Write(const void* bytes, std::size_t size);
    // The same at an offset, whatever the position, which may be anywhere afterwards: what processes share
    // that have inherited the file is no place to rely on.
    DWORD ReadAt(ULONGLONG offset, void* buffer, DWORD size);
    void WriteAt(ULONGLONG offset, const void* bytes, std::size_t size);
    // Makes the file end at the position, or at an offset.
    void SetEnd();
    void SetEnd(ULONGLONG offset);
    // Returns when everything written is on the disk.
    void Flush();

    // Waits up to `ms` milliseconds for the right to be the only one, among all processes and threads, that
    // has locked any of these bytes, which may lie beyond the end of the file. False when the time is up.
    // Ends with `Unlock` for the same range or with the file.
    bool Lock(ULONGLONG offset, ULONGLONG size, DWORD ms);
    void Unlock(ULONGLONG offset, ULONGLONG size);

  protected:
    [[nodiscard]] HANDLE Handle() const noexcept { return m_file.Get(); }

  private:
    TQFileName m_name;
    const bool m_isDeletionShared;
    TQUniqueHandle<_TQFileHandleClose> m_file;
};

}  // namespace Quellan::Corvel
