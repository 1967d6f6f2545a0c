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

// The bits to read and write that the list means for a file of this owner and group; the security must have
// one. 50 (ERROR_NOT_SUPPORTED).
DWORD ModeOf(const FileSecurity& security, uid_t owner, gid_t group, mode_t& mode);

// Gives an open file the bits and keeps the descriptor with it.
DWORD ApplySecurity(int fd, const FileSecurity& security);
// The descriptor that was kept, if it grants nobody more than the bits do, or one made from the bits.
DWORD SecurityOf(int fd, FileSecurity& security);

}  // namespace Quellan::Platform
