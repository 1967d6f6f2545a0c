#include "TQLib/services/internal/Parent.h"

namespace Quellan::Corvel {

// The dispatcher knows at once.
bool MayBeStartedByManager() noexcept {
    return true;
}

}  // namespace Quellan::Corvel
