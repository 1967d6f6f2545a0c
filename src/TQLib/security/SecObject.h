// The security of objects that are there.
#pragma once

#include "TQLib/platform/Types.h"
#include "TQLib/security/SecDesc.h"
#include "TQLib/text/TQString.h"

#include <optional>

namespace Quellan::Sarvek {

// An object whose descriptor is read and set, by its name or by a handle: a value that holds the name, or borrows the
// handle, which has to stay open. It is asked anew each time. Members may be called by several threads at once.
//
// | kind | on Windows | on Linux |
// |---|---|---|
// | file or folder | both | both; the kernel keeps what it can of it |
// | key | both | read; setting is 50 (ERROR_NOT_SUPPORTED) |
// | service | both | read, the same for all; setting is 50 |
// | event, mutex, semaphore | both | both; of setting the DACL alone, by its user |
// | handle of one of these, of a thread, a pipe | both, by the rights of the handle | as the kind |
//
// Failures are thrown as `TQSysException` with the platform's code and the object's name as their action: 2 and 3
// where there is no such object, 5 (ERROR_ACCESS_DENIED), 6 (ERROR_INVALID_HANDLE), 50 for what the kind cannot do
// and, on Linux, for the SACL; what is set then stays as it was. 87 (ERROR_INVALID_PARAMETER) for a key's name that
// begins with none of the roots. Exhausted memory throws 14 (ERROR_OUTOFMEMORY).
class TQLIB_API SecObject {
  public:
    // Owner, group and DACL.
    static constexpr DWORD UsualParts = 0x7;

    // A path. Setting a folder's descriptor leaves what is in it alone.
    [[nodiscard]] static SecObject File(const wchar_t* path);
    // A name from HKEY_LOCAL_MACHINE or HKEY_CURRENT_USER (HKLM, HKCU) on.
    [[nodiscard]] static SecObject Key(const wchar_t* path);
    [[nodiscard]] static SecObject Service(const wchar_t* name);
    [[nodiscard]] static SecObject Event(const wchar_t* name);
    [[nodiscard]] static SecObject Mutex(const wchar_t* name);
    [[nodiscard]] static SecObject Semaphore(const wchar_t* name);
    // Whatever the handle is for; `name` is what failures call it.
    [[nodiscard]] static SecObject Handle(HANDLE handle, const wchar_t* name = L"handle");

    [[nodiscard]] const Corvel::TQString& Name() const noexcept { return m_name; }

    // `parts` are the platform's bits (OWNER_SECURITY_INFORMATION and its like).
    [[nodiscard]] SecDesc Read(DWORD parts = UsualParts) const;
    // Sets these parts alone; a DACL also as protected or not, as it is marked. Without `parts`, those that the
    // descriptor has.
    void Write(const SecDesc& descriptor, std::optional<DWORD> parts = std::nullopt) const;

  private:
    enum class Kind { File, Key, Service, Event, Mutex, Semaphore, Handle };
    class Opened;

    SecObject(Kind kind, Corvel::TQString name, HANDLE handle = nullptr) noexcept;

    Kind m_kind;
    Corvel::TQString m_name;
    HANDLE m_handle;
};

}  // namespace Quellan::Sarvek
