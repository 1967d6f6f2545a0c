// Security descriptors: the published blocks, and those of files.
//
// A file's descriptor means its owner, its group, its mode bits and the kernel's lists of users and groups, which
// alone decide who may do what: docs/formats/file-security.md says how. For user 0 the owner's part counts what is
// allowed to Administrators and SYSTEM too. Rights to read, write and execute count, no others; no file becomes
// executable by a list that is not. Nobody gets what the list does not give him, and less where the kernel has no
// words for it; a list that denies the data to somebody whom this machine does not know is refused with 50
// (ERROR_NOT_SUPPORTED), and so are names where the file system has no lists. The block itself is kept beside the
// file's data where the file system can do that (in the extended attribute "user.tqlib.security"), and told as long
// as the kernel's lists are those that it means, without the rights that they do not give; otherwise a descriptor is
// made from them.
#pragma once

#include "TQLib/platform/linux/accounts/Sids.h"

namespace Quellan::Platform {

struct ACL {
    BYTE AclRevision;
    BYTE Sbz1;
    WORD AclSize;
    WORD AceCount;
    WORD Sbz2;
};

struct ACE_HEADER {
    BYTE AceType;
    BYTE AceFlags;
    WORD AceSize;
};

// With the identifier's block from `SidStart` on.
struct ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    DWORD Mask;
    DWORD SidStart;
};

using SECURITY_DESCRIPTOR_CONTROL = WORD;
using SECURITY_INFORMATION = DWORD;
using PSECURITY_DESCRIPTOR = void*;

// With offsets from its beginning, 0 for what it lacks; everything lies in one block.
struct SECURITY_DESCRIPTOR_RELATIVE {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    DWORD Owner;
    DWORD Group;
    DWORD Sacl;
    DWORD Dacl;
};

struct SECURITY_DESCRIPTOR {
    BYTE Revision;
    BYTE Sbz1;
    SECURITY_DESCRIPTOR_CONTROL Control;
    PSID Owner;
    PSID Group;
    ACL* Sacl;
    ACL* Dacl;
};

inline constexpr BYTE ACL_REVISION = 2;
inline constexpr BYTE ACL_REVISION_DS = 4;
inline constexpr BYTE ACCESS_ALLOWED_ACE_TYPE = 0;
inline constexpr BYTE ACCESS_DENIED_ACE_TYPE = 1;
inline constexpr BYTE SYSTEM_AUDIT_ACE_TYPE = 2;
inline constexpr BYTE SYSTEM_MANDATORY_LABEL_ACE_TYPE = 0x11;
inline constexpr BYTE OBJECT_INHERIT_ACE = 0x01;
inline constexpr BYTE CONTAINER_INHERIT_ACE = 0x02;
inline constexpr BYTE NO_PROPAGATE_INHERIT_ACE = 0x04;
inline constexpr BYTE INHERIT_ONLY_ACE = 0x08;
inline constexpr BYTE INHERITED_ACE = 0x10;
inline constexpr BYTE SUCCESSFUL_ACCESS_ACE_FLAG = 0x40;
inline constexpr BYTE FAILED_ACCESS_ACE_FLAG = 0x80;

inline constexpr BYTE SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr WORD SE_OWNER_DEFAULTED = 0x0001;
inline constexpr WORD SE_GROUP_DEFAULTED = 0x0002;
inline constexpr WORD SE_DACL_PRESENT = 0x0004;
inline constexpr WORD SE_DACL_DEFAULTED = 0x0008;
inline constexpr WORD SE_SACL_PRESENT = 0x0010;
inline constexpr WORD SE_SACL_DEFAULTED = 0x0020;
inline constexpr WORD SE_DACL_AUTO_INHERITED = 0x0400;
inline constexpr WORD SE_DACL_PROTECTED = 0x1000;
inline constexpr WORD SE_SACL_PROTECTED = 0x2000;
inline constexpr WORD SE_SELF_RELATIVE = 0x8000;

inline constexpr DWORD OWNER_SECURITY_INFORMATION = 1;
inline constexpr DWORD GROUP_SECURITY_INFORMATION = 2;
inline constexpr DWORD DACL_SECURITY_INFORMATION = 4;
inline constexpr DWORD SACL_SECURITY_INFORMATION = 8;
inline constexpr DWORD PROTECTED_DACL_SECURITY_INFORMATION = 0x80000000;
inline constexpr DWORD UNPROTECTED_DACL_SECURITY_INFORMATION = 0x20000000;

inline constexpr DWORD ACCESS_SYSTEM_SECURITY = 0x01000000;
inline constexpr DWORD FILE_GENERIC_READ = 0x00120089;
inline constexpr DWORD FILE_GENERIC_WRITE = 0x00120116;
inline constexpr DWORD FILE_GENERIC_EXECUTE = 0x001200A0;
inline constexpr DWORD FILE_ALL_ACCESS = 0x001F01FF;

// Owner, group and access-control list of a file or folder, or of what a symbolic link leads to, each where
// it is asked for, as one block. `needed` receives its size: FALSE with 122 (ERROR_INSUFFICIENT_BUFFER) where
// `size` is smaller, with the code of opening the file where that is not to be found or reached, 50
// (ERROR_NOT_SUPPORTED) where other parts are wanted, 998 (ERROR_NOACCESS) without `needed` or without a
// place for the descriptor.
TQLIB_API BOOL GetFileSecurityW(const wchar_t* name, SECURITY_INFORMATION wanted,
                                PSECURITY_DESCRIPTOR descriptor, DWORD size, DWORD* needed) noexcept;
// Owner, group and access-control list, which may be marked as protected or not; all that is given or, on failure,
// nothing. 50 for other parts. 1338 (ERROR_INVALID_SECURITY_DESCR), 1336 (ERROR_INVALID_ACL), 1307
// (ERROR_INVALID_OWNER), 1308 (ERROR_INVALID_PRIMARY_GROUP), 112 (ERROR_DISK_FULL) for more than the file system
// takes.
TQLIB_API BOOL SetFileSecurityW(const wchar_t* name, SECURITY_INFORMATION given,
                                PSECURITY_DESCRIPTOR descriptor) noexcept;

// Where the part stands, null where the descriptor has none, and whether it is a default. FALSE with 1338
// (ERROR_INVALID_SECURITY_DESCR) for what is no descriptor, 998 (ERROR_NOACCESS) without a place for an
// answer.
TQLIB_API BOOL GetSecurityDescriptorOwner(PSECURITY_DESCRIPTOR descriptor, PSID* owner,
                                          BOOL* isDefaulted) noexcept;
TQLIB_API BOOL GetSecurityDescriptorGroup(PSECURITY_DESCRIPTOR descriptor, PSID* group,
                                          BOOL* isDefaulted) noexcept;

}  // namespace Quellan::Platform
