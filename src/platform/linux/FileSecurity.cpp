#include "platform/linux/FileSecurity.h"

#include "platform/linux/internal/AccountIds.h"
#include "platform/linux/internal/Errno.h"
#include "platform/linux/internal/Fail.h"
#include "platform/linux/internal/FaultPoint.h"
#include "platform/linux/internal/Wide.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

using namespace Quellan::Corvel::Platform;

namespace {

constexpr SECURITY_INFORMATION Offered = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION;

// A descriptor with room for all parts that files have.
class FileDescriptor {
  public:
    DWORD Read(const WCHAR* name, SECURITY_INFORMATION wanted) noexcept {
        const NativePath path(name);
        if (path.Code()) return path.Code();
        struct stat info;
        if (stat(path.c_str(), &info) != 0) return CodeFromErrno(errno, path.c_str());
        DWORD code = ERROR_SUCCESS;
        if (wanted & OWNER_SECURITY_INFORMATION) code = Add(m_header.Owner, {false, info.st_uid});
        if (!code && wanted & GROUP_SECURITY_INFORMATION) code = Add(m_header.Group, {true, info.st_gid});
        return code;
    }
    DWORD Size() const noexcept { return m_size; }
    void CopyTo(void* place) const noexcept {
        std::memcpy(place, &m_header, sizeof m_header);
        std::memcpy(static_cast<BYTE*>(place) + sizeof m_header, m_parts, m_size - sizeof m_header);
    }

  private:
    DWORD Add(DWORD& offset, AccountId account) noexcept {
        const auto sid = SidOfAccount(account);
        if (!sid) return ERROR_NONE_MAPPED;
        std::memcpy(m_parts + m_size - sizeof m_header, sid->Get(), sid->Length());
        offset = m_size;
        m_size += sid->Length();
        return ERROR_SUCCESS;
    }

    SECURITY_DESCRIPTOR_RELATIVE m_header{SECURITY_DESCRIPTOR_REVISION, 0, SE_SELF_RELATIVE, 0, 0, 0, 0};
    BYTE m_parts[2 * SECURITY_MAX_SID_SIZE];
    DWORD m_size = sizeof m_header;
};

BOOL GetPart(void* descriptor, DWORD SECURITY_DESCRIPTOR_RELATIVE::*offset,
             SECURITY_DESCRIPTOR_CONTROL defaulted, PSID* part, BOOL* isDefaulted) noexcept {
    if (!part || !isDefaulted) return Fail(ERROR_NOACCESS, FALSE);
    SECURITY_DESCRIPTOR_RELATIVE header;
    if (!descriptor) return Fail(ERROR_INVALID_SECURITY_DESCR, FALSE);
    std::memcpy(&header, descriptor, sizeof header);
    if (header.Revision != SECURITY_DESCRIPTOR_REVISION || !(header.Control & SE_SELF_RELATIVE))
        return Fail(ERROR_INVALID_SECURITY_DESCR, FALSE);
    *part = header.*offset ? static_cast<BYTE*>(descriptor) + header.*offset : nullptr;
    *isDefaulted = header.Control & defaulted ? TRUE : FALSE;
    return TRUE;
}

}  // namespace

BOOL GetFileSecurityW(const WCHAR* path, SECURITY_INFORMATION wanted, void* descriptor, DWORD size,
                      DWORD* needed) noexcept {
    if (DWORD code = FaultDue("GetFileSecurityW")) return Fail(code, FALSE);
    if (!needed) return Fail(ERROR_NOACCESS, FALSE);
    if (wanted & ~Offered) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    FileDescriptor found;
    if (DWORD code = found.Read(path, wanted)) return Fail(code, FALSE);
    *needed = found.Size();
    if (size < found.Size()) return Fail(ERROR_INSUFFICIENT_BUFFER, FALSE);
    if (!descriptor) return Fail(ERROR_NOACCESS, FALSE);
    found.CopyTo(descriptor);
    return TRUE;
}

BOOL GetSecurityDescriptorOwner(void* descriptor, PSID* owner, BOOL* isDefaulted) noexcept {
    return GetPart(descriptor, &SECURITY_DESCRIPTOR_RELATIVE::Owner, SE_OWNER_DEFAULTED, owner, isDefaulted);
}

BOOL GetSecurityDescriptorGroup(void* descriptor, PSID* group, BOOL* isDefaulted) noexcept {
    return GetPart(descriptor, &SECURITY_DESCRIPTOR_RELATIVE::Group, SE_GROUP_DEFAULTED, group, isDefaulted);
}
