// Pages whose contents are for this process alone.
#pragma once

#include <cstddef>

namespace Quellan::Platform {

// Keeps whole pages out of core dumps, and out of forked children, who find zeros there, as far as the system
// knows of such things. For as long as the pages are committed. Keeps the last error.
void KeepPagesPrivate(void* pages, std::size_t bytes) noexcept;

}  // namespace Quellan::Platform
