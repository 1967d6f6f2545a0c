#include "TQLib/platform/SecretPages.h"

namespace Quellan::Platform {

// Processes have no children that share their memory, and dumps are made by tools that decide for themselves.
void KeepPagesPrivate(void*, std::size_t) noexcept {}

}  // namespace Quellan::Platform
