// Units of systemd.
#pragma once

#include "TQLib/services/TQService.h"

#include <vector>

namespace Quellan::Corvel {

// Writes the unit that runs this program with these arguments and its services, at least one. What they depend
// on is the unit's, the rest is the first one's. An empty `file` is its name, escaped, in /etc/systemd/system.
// Returns the path. Throws `TQSysException` with the platform's code; on Windows 50 (ERROR_NOT_SUPPORTED).
TQLIB_API TQString WriteSystemdUnit(const std::vector<_TQService*>& services, const TQStringArray& arguments,
                                    const TQString& file);

}  // namespace Quellan::Corvel
