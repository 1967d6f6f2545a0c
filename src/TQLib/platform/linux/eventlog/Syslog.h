// The system's own log.
#pragma once

#include "TQLib/platform/linux/eventlog/EventRecord.h"

namespace Quellan::Platform {

// Sends the event to the socket /dev/log, or to dev/log below TQLIB_ROOT where that is set. Never waits, and
// tells nobody when there is no such socket or it takes nothing. May throw std::bad_alloc.
void SendToSyslog(const EventRecord& record);

}  // namespace Quellan::Platform
