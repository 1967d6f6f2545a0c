// Measuring elapsed time, and time-outs that run down.
#pragma once

#include "TQLib/log/time/TQTimeSpan.h"
#include "TQLib/platform/Types.h"

namespace Quellan::Corvel {

// Measures the time since it was made or restarted, by the high-resolution counter, or where the platform has
// none by the tick count. Setting the clock does not disturb it. A value; several threads may read one at
// once.
class TQLIB_API TQTimer {
  public:
    TQTimer() noexcept;

    void Restart() noexcept;
    [[nodiscard]] TQTimeSpan Elapsed() const noexcept;
    // Whether it runs on the high-resolution counter.
    [[nodiscard]] bool IsHighResolution() const noexcept { return m_frequency != 0; }

  private:
    [[nodiscard]] LONGLONG Count() const noexcept;

    LONGLONG m_frequency = 0;  // of the counter in steps a second; 0 for the tick count
    LONGLONG m_start = 0;
};

// A time-out that runs down, for operations that wait several times within one. INFINITE (0xFFFFFFFF) never
// runs down.
class TQLIB_API TQCountdownTimer {
  public:
    explicit TQCountdownTimer(DWORD ms) noexcept : m_ms(ms) {}
    explicit TQCountdownTimer(TQTimeSpan span) noexcept : m_ms(span.TimeoutMs()) {}

    // Begins anew, with the same time-out or another one.
    void Restart() noexcept { m_timer.Restart(); }
    void Restart(DWORD ms) noexcept;
    void Restart(TQTimeSpan span) noexcept { Restart(span.TimeoutMs()); }

    // What is left in milliseconds, for the next wait: a part of one counts as a whole one, 0 says that the
    // time is up, and INFINITE stays INFINITE.
    [[nodiscard]] DWORD Remaining() const noexcept;
    [[nodiscard]] bool IsExpired() const noexcept { return Remaining() == 0; }

  private:
    TQTimer m_timer;
    DWORD m_ms;
};

}  // namespace Quellan::Corvel
