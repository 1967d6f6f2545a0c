// What security descriptors mean for files.
#pragma once

#include "TQLib/platform/linux/accounts/SidValue.h"

#include <optional>
#include <span>
#include <sys/stat.h>
#include <vector>

namespace Quellan::Platform {

// One entry of an access-control list; of types with another layout than that of the simple ones the
// identifier is empty.
struct AccessEntry {
    BYTE type;
    BYTE flags;
    DWORD mask;
    SidValue sid;
};

bool HasSimpleLayout(BYTE type) noexcept;

// A descriptor taken apart. Without a list nothing is said of who may do what; a list that is null allows
// everybody everything.
struct FileSecurity {
    WORD control = 0;
    std::optional<SidValue> owner;
    std::optional<SidValue> group;
    bool hasList = false;
    std::optional<std::vector<AccessEntry>> list;
};

// All may throw std::bad_alloc.

// Reads the block at an address, of either form; it tells its own size, as everywhere on the platform. 1338
// (ERROR_INVALID_SECURITY_DESCR), 1336 (ERROR_INVALID_ACL), 1337 (ERROR_INVALID_SID).
DWORD ReadDescriptor(const void* descriptor, FileSecurity& security);
// Reads a self-relative block that may hold anything.
DWORD ParseDescriptor(std::span<const BYTE> block, FileSecurity& security);
// As a self-relative block; the parts that are named in `wanted`.
std::vector<BYTE> MakeDescriptor(const FileSecurity& security, DWORD wanted);

// The same in a caller's buffer: 122 (ERROR_INSUFFICIENT_BUFFER) with `needed`, 998
// (ERROR_NOACCESS) without a buffer that has the size, 50 (ERROR_NOT_SUPPORTED) for the SACL and for parts that are
// not named here.
DWORD PutDescriptor(const FileSecurity& security, DWORD wanted, void* buffer, DWORD size, DWORD& needed);

// The bits that a new file of this owner and group begins with: those to read and write that the list means, the
// owner's alone where it names others. The security must have a list. 50 (ERROR_NOT_SUPPORTED).
DWORD ModeOf(const FileSecurity& security, uid_t owner, gid_t group, mode_t& mode);

// Gives an open file or folder the parts that are named: all of them or, with a code, none; 50
// (ERROR_NOT_SUPPORTED) for others than owner, group and list, 1338 (ERROR_INVALID_SECURITY_DESCR) without a list. A descriptor that the
// file system cannot keep beside the kernel's lists is left out. 1307 (ERROR_INVALID_OWNER) and 1308
// (ERROR_INVALID_PRIMARY_GROUP) for what is no user, no group of this machine, 112 (ERROR_DISK_FULL) for more
// than the file system takes.
DWORD ApplySecurity(int fd, const FileSecurity& given, DWORD parts);
// The descriptor that was kept, without the rights that nobody has, if the kernel's lists are those that it
// means, or one made from them.
DWORD SecurityOf(int fd, FileSecurity& security);

}  // namespace Quellan::Platform
