// Pages whose contents are for this process alone.
#pragma once

#include <cstddef>

namespace Quellan::Platform {

// Keeps whole pages out of core dumps, and out of forked children, who find zeros there, as far as the system
// knows of such things. For as long as the pages are committed. Keeps the last error.
void KeepPagesPrivate(void* pages, std::size_t bytes) noexcept;

// Lets the process lock as many pages as it may without a right for it: on Linux up to the hard limit, on
// Windows one mebibyte more than before. Where that is refused the limit stays. Keeps the last error.
void RaiseLockLimit() noexcept;

}  // namespace Quellan::Platform
