// Changing the priority of a thread for a while.
#pragma once

#include "TQLib/core/base/TQObject.h"
#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Gives the calling thread a priority (one of the platform's THREAD_PRIORITY_ values) and its old one back at
// the end; belongs on that thread's stack.
class TQLIB_API TQThreadPriority : public TQObject {
  public:
    // Changes nothing where the thread has that priority, or with `raiseOnly` a higher one. Throws the
    // platform's code.
    [[nodiscard]] explicit TQThreadPriority(int priority, bool raiseOnly = false);
    TQThreadPriority(const TQThreadPriority&) = delete;
    TQThreadPriority& operator=(const TQThreadPriority&) = delete;
    // Restores the old priority where the constructor changed it.
    ~TQThreadPriority() override;

    [[nodiscard]] int Priority() const noexcept { return m_priority; }  // as asked for
    int PreviousPriority() const noexcept { return m_previous; }
    [[nodiscard]] bool HasChanged() const noexcept { return m_hasChanged; }

  private:
    int m_priority;
    int m_previous;
    bool m_hasChanged = false;
};

}  // namespace Quellan::Corvel
