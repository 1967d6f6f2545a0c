// Units of systemd.
#pragma once

#include "services/TQService.h"

namespace Quellan::Corvel {

// Writes the unit that runs this program with these arguments and its services, of which `service` is the
// first. An empty `file` is /etc/systemd/system/NAME.service. Returns the path. Throws `TQSysException` with
// the platform's code; on Windows 50 (ERROR_NOT_SUPPORTED).
TQString WriteSystemdUnit(const _TQService& service, const TQStringArray& arguments, const TQString& file);

}  // namespace Quellan::Corvel
