#include "TQLib/platform/linux/files/SecurityDescriptors.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/files/FileSecurity.h"

namespace Quellan::Platform {

namespace {

// Also one that the caller may neither read nor write.
DWORD OpenForSecurity(const wchar_t* name, Descriptor& file) noexcept {
    const NativePath path(name);
    if (path.Code()) return path.Code();
    constexpr int Flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    file = Descriptor(Retry([&] { return open(path.c_str(), Flags); }));
    if (!file) file = Descriptor(open(path.c_str(), O_PATH | O_CLOEXEC));
    return file ? ERROR_SUCCESS : CodeFromErrno(errno, path.c_str());
}

DWORD ReadSecurity(const wchar_t* name, DWORD wanted, void* buffer, DWORD size, DWORD& needed) {
    Descriptor file;
    FileSecurity security;
    if (DWORD code = OpenForSecurity(name, file)) return code;
    if (DWORD code = SecurityOf(file.Get(), security)) return code;
    return PutDescriptor(security, wanted, buffer, size, needed);
}

DWORD WriteSecurity(const wchar_t* name, DWORD given, const void* descriptor) {
    Descriptor file;
    FileSecurity security;
    if (DWORD code = ReadDescriptor(descriptor, security)) return code;
    if (DWORD code = OpenForSecurity(name, file)) return code;
    return ApplySecurity(file.Get(), security, given);
}

BOOL GetPart(void* descriptor, PSID SECURITY_DESCRIPTOR::*absolute,
             DWORD SECURITY_DESCRIPTOR_RELATIVE::*offset, SECURITY_DESCRIPTOR_CONTROL defaulted, PSID* part,
             BOOL* isDefaulted) noexcept {
    if (!part || !isDefaulted) return Fail(ERROR_NOACCESS, FALSE);
    const auto* const header = static_cast<const SECURITY_DESCRIPTOR*>(descriptor);
    if (!header || header->Revision != SECURITY_DESCRIPTOR_REVISION)
        return Fail(ERROR_INVALID_SECURITY_DESCR, FALSE);
    *isDefaulted = header->Control & defaulted ? TRUE : FALSE;
    if (!(header->Control & SE_SELF_RELATIVE)) {
        *part = header->*absolute;
        return TRUE;
    }
    const DWORD at = static_cast<const SECURITY_DESCRIPTOR_RELATIVE*>(descriptor)->*offset;
    *part = at ? static_cast<BYTE*>(descriptor) + at : nullptr;
    return TRUE;
}

}  // namespace

BOOL GetFileSecurityW(const wchar_t* name, SECURITY_INFORMATION wanted, PSECURITY_DESCRIPTOR descriptor,
                      DWORD size, DWORD* needed) noexcept {
    if (DWORD code = FaultDue("GetFileSecurityW")) return Fail(code, FALSE);
    if (!needed) return Fail(ERROR_NOACCESS, FALSE);
    const DWORD code = WithMemory([&] { return ReadSecurity(name, wanted, descriptor, size, *needed); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL SetFileSecurityW(const wchar_t* name, SECURITY_INFORMATION given,
                      PSECURITY_DESCRIPTOR descriptor) noexcept {
    if (DWORD code = FaultDue("SetFileSecurityW")) return Fail(code, FALSE);
    const DWORD code = WithMemory([&] { return WriteSecurity(name, given, descriptor); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID* owner, BOOL* isDefaulted) noexcept {
    return GetPart(descriptor, &SECURITY_DESCRIPTOR::Owner, &SECURITY_DESCRIPTOR_RELATIVE::Owner,
                   SE_OWNER_DEFAULTED, owner, isDefaulted);
}

BOOL GetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR descriptor, PSID* group, BOOL* isDefaulted) noexcept {
    return GetPart(descriptor, &SECURITY_DESCRIPTOR::Group, &SECURITY_DESCRIPTOR_RELATIVE::Group,
                   SE_GROUP_DEFAULTED, group, isDefaulted);
}

}  // namespace Quellan::Platform
