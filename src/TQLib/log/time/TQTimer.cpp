#include "TQLib/log/time/TQTimer.h"

#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

TQTimer::TQTimer() noexcept {
    LARGE_INTEGER frequency;
    if (QueryPerformanceFrequency(&frequency)) m_frequency = frequency.QuadPart;
    Restart();
}

void TQTimer::Restart() noexcept {
    m_start = Count();
}

TQTimeSpan TQTimer::Elapsed() const noexcept {
    const LONGLONG counted = Count() - m_start;
    if (!IsHighResolution()) return TQTimeSpan::FromMilliseconds(counted);
    // In two parts: the product of a long time and the steps in a second would overflow.
    const LONGLONG rest = counted % m_frequency;
    return TQTimeSpan::FromSeconds(counted / m_frequency) +
           TQTimeSpan::FromSteps(rest * TQTimeSpan::StepsInSecond / m_frequency);
}

LONGLONG TQTimer::Count() const noexcept {
    if (!IsHighResolution()) return static_cast<LONGLONG>(GetTickCount64());
    LARGE_INTEGER count;
    QueryPerformanceCounter(&count);
    return count.QuadPart;
}

void TQCountdownTimer::Restart(DWORD ms) noexcept {
    m_ms = ms;
    Restart();
}

DWORD TQCountdownTimer::Remaining() const noexcept {
    if (m_ms == INFINITE) return INFINITE;
    const LONGLONG elapsed = m_timer.Elapsed().Milliseconds();
    return elapsed < m_ms ? m_ms - static_cast<DWORD>(elapsed) : 0;
}

}  // namespace Quellan::Corvel
