// What a descriptor grants the calling thread, where the layer itself keeps an object's rights.
#pragma once

#include "TQLib/platform/GenericRights.h"
#include "TQLib/platform/linux/base/Base.h"

#include <span>

namespace Quellan::Platform {

// Whether the calling thread, as whom it acts, is granted all that is wanted by the descriptor, a block in one
// piece that may hold anything. Generic rights are mapped; MAXIMUM_ALLOWED is for all that is granted. 0 with
// `granted`, otherwise 5 (ERROR_ACCESS_DENIED), also for a damaged block, 1314 (ERROR_PRIVILEGE_NOT_HELD), 1460
// (ERROR_TIMEOUT) where the account database does not answer. User 0 counts as the system and as an administrator.
// May throw std::bad_alloc.
DWORD CheckCaller(std::span<const BYTE> descriptor, const GenericRights& rights, DWORD wanted,
                  DWORD& granted);

}  // namespace Quellan::Platform
