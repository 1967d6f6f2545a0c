#include "TQLib/security/SecObject.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/About.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"
#include "TQLib/text/memory/TQUniqueHandle.h"
#include "TQLib/text/memory/internal/Translated.h"

#include <string_view>
#include <utility>

namespace Quellan::Sarvek {

using Corvel::BYTEBuf;
using Corvel::TQString;
using Corvel::TQSysException;
using Corvel::Translated;

namespace {

struct ServiceClose : Corvel::_TQNullHandle<SC_HANDLE> {
    static void Close(SC_HANDLE handle) noexcept { CloseServiceHandle(handle); }
};

struct KeyRoot {
    const wchar_t* name;
    HKEY key;
};

// The root that a key's name begins with, which is taken off it.
HKEY TakeRoot(std::wstring_view& name) {
    const KeyRoot roots[] = {{L"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
                             {L"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
                             {L"HKLM", HKEY_LOCAL_MACHINE},
                             {L"HKCU", HKEY_CURRENT_USER}};
    const std::wstring_view first = name.substr(0, name.find(L'\\'));
    for (const KeyRoot& root : roots)
        if (first == root.name) {
            name.remove_prefix(first.size() == name.size() ? first.size() : first.size() + 1);
            return root.key;
        }
    throw TQSysException(ERROR_INVALID_PARAMETER, L"SecObject::Key");
}

// The rights that setting these parts takes.
DWORD RightsToSet(DWORD parts) noexcept {
    constexpr DWORD OfOwner = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION;
    return (parts & OfOwner ? WRITE_OWNER : 0) | (parts & DACL_SECURITY_INFORMATION ? WRITE_DAC : 0) |
           (parts & SACL_SECURITY_INFORMATION ? ACCESS_SYSTEM_SECURITY : 0);
}

DWORD RightsToGet(DWORD parts) noexcept {
    return READ_CONTROL | (parts & SACL_SECURITY_INFORMATION ? ACCESS_SYSTEM_SECURITY : 0);
}

DWORD PartsOf(const SecDesc& descriptor) noexcept {
    return (descriptor.Owner().IsNull() ? 0 : OWNER_SECURITY_INFORMATION) |
           (descriptor.Group().IsNull() ? 0 : GROUP_SECURITY_INFORMATION) |
           (descriptor.HasDACL() ? DACL_SECURITY_INFORMATION : 0) |
           (descriptor.SACL() ? SACL_SECURITY_INFORMATION : 0);
}

}  // namespace

// What is open while an object is asked: the calls of its kind, as codes.
class SecObject::Opened {
  public:
    Opened(const SecObject& object, DWORD rights) : m_kind(object.m_kind), m_name(object.m_name) {
        const wchar_t* const name = m_name.c_str();
        switch (m_kind) {
            case Kind::File:
                break;
            case Kind::Key:
                OpenKey(rights);
                break;
            case Kind::Service:
                OpenService(rights);
                break;
            case Kind::Event:
                Take(OpenEventW(rights, FALSE, name), L"OpenEventW");
                break;
            case Kind::Mutex:
                Take(OpenMutexW(rights, FALSE, name), L"OpenMutexW");
                break;
            case Kind::Semaphore:
                Take(OpenSemaphoreW(rights, FALSE, name), L"OpenSemaphoreW");
                break;
            case Kind::Handle:
                m_handle = object.m_handle;
                break;
        }
    }

    DWORD Get(DWORD parts, void* block, DWORD size, DWORD& needed) const {
        switch (m_kind) {
            case Kind::File:
                return Code(GetFileSecurityW(m_name.c_str(), parts, block, size, &needed));
            case Kind::Key:
                needed = size;
                return static_cast<DWORD>(RegGetKeySecurity(m_key.Get(), parts, block, &needed));
            case Kind::Service:
                return Code(QueryServiceObjectSecurity(m_service.Get(), parts, block, size, &needed));
            default:
                return Code(GetKernelObjectSecurity(m_handle, parts, block, size, &needed));
        }
    }

    DWORD Set(DWORD parts, void* block) const {
        switch (m_kind) {
            case Kind::File:
                return Code(SetFileSecurityW(m_name.c_str(), parts, block));
            case Kind::Key:
                return static_cast<DWORD>(RegSetKeySecurity(m_key.Get(), parts, block));
            case Kind::Service:
                return Code(SetServiceObjectSecurity(m_service.Get(), parts, block));
            default:
                return Code(SetKernelObjectSecurity(m_handle, parts, block));
        }
    }

  private:
    static DWORD Code(BOOL succeeded) noexcept { return succeeded ? ERROR_SUCCESS : GetLastError(); }

    void Take(HANDLE handle, const wchar_t* where) {
        if (!handle) TQSysException::ThrowLastError(where);
        m_owner = Corvel::TQUniqueHandle<Corvel::_TQKernelHandleClose>(handle);
        m_handle = handle;
    }

    void OpenKey(DWORD rights) {
        std::wstring_view path = m_name.View();
        const HKEY root = TakeRoot(path);
        HKEY key = nullptr;
        const LSTATUS code = RegOpenKeyExW(root, TQString(path).c_str(), 0, rights, &key);
        if (code != ERROR_SUCCESS) throw TQSysException(static_cast<DWORD>(code), L"RegOpenKeyExW");
        m_key = Corvel::TQUniqueHandle<Corvel::_TQRegKeyClose>(key);
    }

    void OpenService(DWORD rights) {
        const Corvel::TQUniqueHandle<ServiceClose> manager(
            OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        if (!manager.IsValid()) TQSysException::ThrowLastError(L"OpenSCManagerW");
        m_service = Corvel::TQUniqueHandle<ServiceClose>(OpenServiceW(manager.Get(), m_name.c_str(), rights));
        if (!m_service.IsValid()) TQSysException::ThrowLastError(L"OpenServiceW");
    }

    const Kind m_kind;
    const TQString m_name;
    HANDLE m_handle = nullptr;
    Corvel::TQUniqueHandle<Corvel::_TQKernelHandleClose> m_owner;
    Corvel::TQUniqueHandle<Corvel::_TQRegKeyClose> m_key;
    Corvel::TQUniqueHandle<ServiceClose> m_service;
};

SecObject::SecObject(Kind kind, TQString name, HANDLE handle) noexcept
    : m_kind(kind), m_name(std::move(name)), m_handle(handle) {}

SecObject SecObject::File(const wchar_t* path) {
    return SecObject(Kind::File, TQString(path));
}

SecObject SecObject::Key(const wchar_t* path) {
    return SecObject(Kind::Key, TQString(path));
}

SecObject SecObject::Service(const wchar_t* name) {
    return SecObject(Kind::Service, TQString(name));
}

SecObject SecObject::Event(const wchar_t* name) {
    return SecObject(Kind::Event, TQString(name));
}

SecObject SecObject::Mutex(const wchar_t* name) {
    return SecObject(Kind::Mutex, TQString(name));
}

SecObject SecObject::Semaphore(const wchar_t* name) {
    return SecObject(Kind::Semaphore, TQString(name));
}

SecObject SecObject::Handle(HANDLE handle, const wchar_t* name) {
    return SecObject(Kind::Handle, TQString(name), handle);
}

SecDesc SecObject::Read(DWORD parts) const {
    constexpr const wchar_t* Where = L"SecObject::Read";
    return Translated(Where, [&] {
        return Corvel::About(m_name, [&] {
            const Opened object(*this, RightsToGet(parts));
            BYTEBuf block(512);  // larger ones take a second call
            for (;;) {
                DWORD needed = 0;
                const DWORD code = object.Get(parts, block.Data(), static_cast<DWORD>(block.Size()), needed);
                if (code == ERROR_SUCCESS) break;
                if (code != ERROR_INSUFFICIENT_BUFFER || needed <= block.Size())
                    throw TQSysException(code, Where);
                block.Resize(needed);
            }
            return SecDesc::FromBytes(block.Data(), block.Size());
        });
    });
}

void SecObject::Write(const SecDesc& descriptor, std::optional<DWORD> parts) const {
    constexpr const wchar_t* Where = L"SecObject::Write";
    Translated(Where, [&] {
        Corvel::About(m_name, [&] {
            const DWORD given = parts ? *parts : PartsOf(descriptor);
            if (given == 0) return;
            const Opened object(*this, RightsToSet(given));
            BYTEBuf block = descriptor.Block();
            if (const DWORD code = object.Set(given, block.Data())) throw TQSysException(code, Where);
        });
    });
}

}  // namespace Quellan::Sarvek
