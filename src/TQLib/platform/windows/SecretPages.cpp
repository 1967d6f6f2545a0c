#include "TQLib/platform/SecretPages.h"

namespace Quellan::Corvel::Platform {

// Processes have no children that share their memory, and dumps are made by tools that decide for themselves.
void KeepPagesPrivate(void*, std::size_t) noexcept {}

}  // namespace Quellan::Corvel::Platform
