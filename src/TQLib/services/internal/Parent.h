// Who has started this process.
#pragma once

namespace Quellan::Corvel {

// False where it is known that the service manager has not. To ask the dispatcher itself may take seconds.
bool MayBeStartedByManager() noexcept;

}  // namespace Quellan::Corvel
