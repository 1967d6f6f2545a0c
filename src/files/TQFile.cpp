#include "files/TQFile.h"

#include "core/TQException.h"
#include "platform/FileLocks.h"
#include "platform/Win32.h"
#include "text/STLString.h"

#include <limits>

namespace Quellan::Corvel {

namespace {

DWORD Low(ULONGLONG value) noexcept {
    return static_cast<DWORD>(value);
}

DWORD High(ULONGLONG value) noexcept {
    return static_cast<DWORD>(value >> 32);
}

void Check(BOOL done, const wchar_t* where) {
    if (!done) TQSysException::ThrowLastError(where);
}

HANDLE Opened(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, _TQFile::FileShare share,
              const Sarvek::SecAttr& security) {
    const HANDLE file = CreateFileW(name.FullName().c_str(), access, static_cast<DWORD>(share),
                                    security.Get(), disposition, flags, nullptr);
    if (file == INVALID_HANDLE_VALUE) TQSysException::ThrowLastError(L"_TQFile::_TQFile");
    return file;
}

}  // namespace

_TQFile::_TQFile(const TQFileName& name, DWORD access, DWORD disposition, DWORD flags, FileShare share,
                 const Sarvek::SecAttr& security)
    : m_name(name), m_file(Opened(name, access, disposition, flags, share, security)) {}

_TQFile::~_TQFile() = default;

STLString _TQFile::Description() const {
    return m_name.Description();
}

ULONGLONG _TQFile::Size() const {
    LARGE_INTEGER size;
    Check(GetFileSizeEx(m_file.Get(), &size), L"_TQFile::Size");
    return static_cast<ULONGLONG>(size.QuadPart);
}

ULONGLONG _TQFile::Seek(LONGLONG distance, Origin origin) {
    LARGE_INTEGER to, position;
    to.QuadPart = distance;
    Check(SetFilePointerEx(m_file.Get(), to, &position, static_cast<DWORD>(origin)), L"_TQFile::Seek");
    return static_cast<ULONGLONG>(position.QuadPart);
}

DWORD _TQFile::Read(void* buffer, DWORD size) {
    DWORD got = 0;
    Check(ReadFile(m_file.Get(), buffer, size, &got, nullptr), L"_TQFile::Read");
    return got;
}

void _TQFile::Write(const void* bytes, std::size_t size) {
    if (size > std::numeric_limits<DWORD>::max()) TQStdExceptions::ThrowOverflowError(L"_TQFile::Write");
    DWORD written = 0;
    Check(WriteFile(m_file.Get(), bytes, static_cast<DWORD>(size), &written, nullptr), L"_TQFile::Write");
    if (written != size) throw TQSysException(ERROR_DISK_FULL, L"_TQFile::Write");
}

void _TQFile::SetEnd() {
    Check(SetEndOfFile(m_file.Get()), L"_TQFile::SetEnd");
}

void _TQFile::Flush() {
    Check(FlushFileBuffers(m_file.Get()), L"_TQFile::Flush");
}

bool _TQFile::Lock(ULONGLONG offset, ULONGLONG size, DWORD ms) {
    const DWORD code = Platform::LockFileRange(m_file.Get(), offset, size, ms);
    if (code == ERROR_LOCK_VIOLATION) return false;
    if (code != ERROR_SUCCESS) throw TQSysException(static_cast<unsigned int>(code), L"_TQFile::Lock");
    return true;
}

void _TQFile::Unlock(ULONGLONG offset, ULONGLONG size) {
    Check(UnlockFile(m_file.Get(), Low(offset), High(offset), Low(size), High(size)), L"_TQFile::Unlock");
}

}  // namespace Quellan::Corvel
