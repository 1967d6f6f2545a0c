// Measuring the processor time of threads.
#pragma once

#include "TQLib/log/time/TQTimeSpan.h"
#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Measures how much processor time, in user and kernel mode together, the calling thread has used since the
// timer was made or restarted. It belongs to that thread. Failures are thrown as `TQSysException` with the
// platform's code.
class TQLIB_API TQThreadCPUTimer {
  public:
    TQThreadCPUTimer();

    void Restart();
    [[nodiscard]] TQTimeSpan Elapsed() const;

    // All that a thread has used since it began; also after its end, while its handle is open.
    [[nodiscard]] static TQTimeSpan ThreadTime(HANDLE thread);

  private:
    TQTimeSpan m_start;
};

}  // namespace Quellan::Corvel
