// Units of systemd.
#pragma once

#include "TQLib/services/TQService.h"

namespace Quellan::Corvel {

// Writes the unit that runs this program with these arguments and its services, of which `service` is the
// first. An empty `file` is the service's name, escaped, in /etc/systemd/system.
// Returns the path. Throws `TQSysException` with the platform's code; on Windows 50 (ERROR_NOT_SUPPORTED).
TQLIB_API TQString WriteSystemdUnit(const _TQService& service, const TQStringArray& arguments,
                                    const TQString& file);

}  // namespace Quellan::Corvel
