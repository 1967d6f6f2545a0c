// Who may have a file open beside whom: the share modes of handles, kept between all processes that use the
// layer.
//
// Each handle holds shared locks on some of seven bytes far behind the data of its file: for each right it
// has (to read, write, delete) one, and for each it grants nobody else another one. Open file descriptions
// own such locks, so they end with the handle or its process. Nobody holds an exclusive one; a handle that is
// being opened takes its locks first and then looks for those it does not go with, holding the byte that is left
// meanwhile, so that of two which are being opened at once one backs out and tries again.
#pragma once

#include "TQLib/platform/linux/base/Base.h"

#include <cstdint>

namespace Quellan::Platform {

// The first of the layer's own bytes of a file, behind all that others may lock.
constexpr std::int64_t OwnLockBytes = std::int64_t{1} << 62;

// Enters an open file with the rights it was opened with (FILE_READ_DATA, FILE_WRITE_DATA, FILE_APPEND_DATA,
// DELETE; without any of them everybody goes with it) and what it grants others. 32
// (ERROR_SHARING_VIOLATION). A file system that keeps no locks keeps nobody out, and neither does a
// descriptor that cannot be read: it only heeds others. Where the system has no lock left, its code.
DWORD EnterShareMode(int fd, DWORD rights, DWORD share) noexcept;

}  // namespace Quellan::Platform
