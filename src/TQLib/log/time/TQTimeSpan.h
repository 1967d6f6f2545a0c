// Durations.
#pragma once

#include "TQLib/platform/Types.h"

#include <compare>

namespace Quellan::Corvel {

// A duration, positive or negative, in steps of 100 nanoseconds: up to 29,000 years. A value; arithmetic that
// leaves the range is undefined, as with integers.
class TQTimeSpan {
  public:
    static constexpr LONGLONG StepsInMillisecond = 10'000;
    static constexpr LONGLONG StepsInSecond = 1'000 * StepsInMillisecond;

    constexpr TQTimeSpan() noexcept = default;
    [[nodiscard]] static constexpr TQTimeSpan FromSteps(LONGLONG steps) noexcept { return TQTimeSpan(steps); }
    [[nodiscard]] static constexpr TQTimeSpan FromMilliseconds(LONGLONG ms) noexcept {
        return TQTimeSpan(ms * StepsInMillisecond);
    }
    [[nodiscard]] static constexpr TQTimeSpan FromSeconds(LONGLONG seconds) noexcept {
        return TQTimeSpan(seconds * StepsInSecond);
    }

    // The whole duration in each unit; what is left over is cut off, towards zero.
    [[nodiscard]] constexpr LONGLONG Steps() const noexcept { return m_steps; }
    [[nodiscard]] constexpr LONGLONG Milliseconds() const noexcept { return m_steps / StepsInMillisecond; }
    [[nodiscard]] constexpr LONGLONG Seconds() const noexcept { return m_steps / StepsInSecond; }

    constexpr TQTimeSpan operator-() const noexcept { return TQTimeSpan(-m_steps); }
    constexpr TQTimeSpan& operator+=(TQTimeSpan other) noexcept {
        m_steps += other.m_steps;
        return *this;
    }
    constexpr TQTimeSpan& operator-=(TQTimeSpan other) noexcept { return *this += -other; }
    friend constexpr TQTimeSpan operator+(TQTimeSpan a, TQTimeSpan b) noexcept { return a += b; }
    friend constexpr TQTimeSpan operator-(TQTimeSpan a, TQTimeSpan b) noexcept { return a -= b; }
    friend constexpr auto operator<=>(TQTimeSpan a, TQTimeSpan b) noexcept = default;

  private:
    explicit constexpr TQTimeSpan(LONGLONG steps) noexcept : m_steps(steps) {}

    LONGLONG m_steps = 0;
};

}  // namespace Quellan::Corvel
