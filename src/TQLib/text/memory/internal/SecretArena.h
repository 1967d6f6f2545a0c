// The memory of buffers that hold secrets.
#pragma once

#include "TQLib/text/memory/TQAllocators.h"

#include <cstddef>

namespace Quellan::Corvel {

// Blocks in pages that are locked in memory, stand between two pages that nobody may touch, and are kept out
// of core dumps and forked children where the platform can do that. Small blocks share a page with others of
// their size, so that many secrets need few locked pages; a larger one has its pages to itself. Whoever gives
// a block back has wiped it. Null with 8 (ERROR_NOT_ENOUGH_MEMORY) without memory, and with the platform's
// code where no page may be locked. For several threads.
const TQAllocator& SecretMemory() noexcept;

// The size of the block that a request for so many bytes gets.
std::size_t SecretBlockSize(std::size_t bytes) noexcept;

}  // namespace Quellan::Corvel
