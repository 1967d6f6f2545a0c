#include "security/internal/LocalPolicy.h"

namespace Quellan::Sarvek {

// There is no registry to say so.
bool EveryoneIncludesAnonymous() noexcept {
    return false;
}

}  // namespace Quellan::Sarvek
