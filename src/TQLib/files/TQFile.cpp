#include "TQLib/files/TQFile.h"

#include "TQLib/core/internal/About.h"
#include "TQLib/platform/OpenFiles.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/STLString.h"

#include <limits>

namespace Quellan::Corvel {

namespace {

DWORD Low(ULONGLONG value) noexcept {
    return static_cast<DWORD>(value);
}

DWORD High(ULONGLONG value) noexcept {
    return static_cast<DWORD>(value >> 32);
}

void CheckCode(DWORD code, const wchar_t* where, const TQFileName& name) {
    if (code == ERROR_SUCCESS) return;
    About(name.FullName(), [&] { throw TQSysException(static_cast<unsigned int>(code), where); });
}

void Check(BOOL done, const wchar_t* where, const TQFileName& name) {
    if (!done) CheckCode(GetLastError(), where, name);
}

// The parameter of one call, which must write all of it.
DWORD SizeOfOneWrite(std::size_t size) {
    if (size > std::numeric_limits<DWORD>::max()) TQStdExceptions::ThrowOverflowError(L"_TQFile::Write");
    return static_cast<DWORD>(size);
}

void CheckWhole(DWORD written, std::size_t size, const TQFileName& name) {
    if (written != size) CheckCode(ERROR_DISK_FULL, L"_TQFile::Write", name);
}

HANDLE Opened(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, _TQFile::FileShare share,
              const Sarvek::SecAttr& security) {
    const HANDLE file = CreateFileW(name.FullName().c_str(), access, static_cast<DWORD>(share),
                                    security.Get(), disposition, flags, nullptr);
    Check(file != INVALID_HANDLE_VALUE, L"_TQFile::_TQFile", name);
    return file;
}

}  // namespace

_TQFile::_TQFile(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, FileShare share,
                 const Sarvek::SecAttr& security)
    : m_name(name),
      m_isDeletionShared(static_cast<DWORD>(share) & static_cast<DWORD>(FileShare::Delete)),
      m_file(Opened(name, access, disposition, flags, share, security)) {}

_TQFile::~_TQFile() = default;

STLString _TQFile::Description() const {
    return m_name.Description();
}

std::optional<ULONGLONG> _TQFile::SizeAtItsName() const {
    ULONGLONG size = 0;
    const DWORD code =
        Platform::SizeOfFileAt(m_file.Get(), m_name.FullName().c_str(), m_isDeletionShared, size);
    if (code == ERROR_FILE_INVALID) return std::nullopt;
    CheckCode(code, L"_TQFile::Size", m_name);
    return size;
}

ULONGLONG _TQFile::Size() const {
    LARGE_INTEGER size;
    Check(GetFileSizeEx(m_file.Get(), &size), L"_TQFile::Size", m_name);
    return static_cast<ULONGLONG>(size.QuadPart);
}

ULONGLONG _TQFile::Seek(LONGLONG distance, Origin origin) {
    LARGE_INTEGER to, position;
    to.QuadPart = distance;
    Check(SetFilePointerEx(m_file.Get(), to, &position, static_cast<DWORD>(origin)), L"_TQFile::Seek",
          m_name);
    return static_cast<ULONGLONG>(position.QuadPart);
}

DWORD _TQFile::Read(void* buffer, DWORD size) {
    DWORD got = 0;
    Check(ReadFile(m_file.Get(), buffer, size, &got, nullptr), L"_TQFile::Read", m_name);
    return got;
}

void _TQFile::Write(const void* bytes, std::size_t size) {
    DWORD written = 0;
    Check(WriteFile(m_file.Get(), bytes, SizeOfOneWrite(size), &written, nullptr), L"_TQFile::Write", m_name);
    CheckWhole(written, size, m_name);
}

DWORD _TQFile::ReadAt(ULONGLONG offset, void* buffer, DWORD size) {
    DWORD got = 0;
    CheckCode(Platform::ReadFileAt(m_file.Get(), offset, buffer, size, got), L"_TQFile::Read", m_name);
    return got;
}

void _TQFile::WriteAt(ULONGLONG offset, const void* bytes, std::size_t size) {
    DWORD written = 0;
    CheckCode(Platform::WriteFileAt(m_file.Get(), offset, bytes, SizeOfOneWrite(size), written),
              L"_TQFile::Write", m_name);
    CheckWhole(written, size, m_name);
}

void _TQFile::SetEnd() {
    Check(SetEndOfFile(m_file.Get()), L"_TQFile::SetEnd", m_name);
}

void _TQFile::SetEnd(ULONGLONG offset) {
    CheckCode(Platform::SetFileSize(m_file.Get(), offset), L"_TQFile::SetEnd", m_name);
}

void _TQFile::Flush() {
    Check(FlushFileBuffers(m_file.Get()), L"_TQFile::Flush", m_name);
}

bool _TQFile::Lock(ULONGLONG offset, ULONGLONG size, DWORD ms) {
    const DWORD code = Platform::LockFileRange(m_file.Get(), offset, size, ms);
    if (code == ERROR_LOCK_VIOLATION) return false;
    CheckCode(code, L"_TQFile::Lock", m_name);
    return true;
}

void _TQFile::Unlock(ULONGLONG offset, ULONGLONG size) {
    Check(UnlockFile(m_file.Get(), Low(offset), High(offset), Low(size), High(size)), L"_TQFile::Unlock",
          m_name);
}

}  // namespace Quellan::Corvel
