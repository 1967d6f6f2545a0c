// Settings of the machine's local policy.
#pragma once

namespace Quellan::Sarvek {

// Whether Everyone includes the anonymous user; false where that can't be read.
bool EveryoneIncludesAnonymous() noexcept;

}  // namespace Quellan::Sarvek
