// Durations.
#pragma once

#include "TQLib/platform/Types.h"

#include <compare>
#include <functional>
#include <limits>
#include <ratio>
#include <shared_mutex>  // has durations and the system clock, and is a fraction of <chrono>

namespace Quellan::Corvel {

// A duration, positive or negative, in steps of 100 nanoseconds: up to 29,000 years. A value; arithmetic that
// leaves the range is undefined, as with integers. The standard library's durations convert to and from it, so
// that waits take them: `event.Wait(500ms)`.
class TQTimeSpan {
  public:
    using Duration = std::chrono::duration<LONGLONG, std::ratio<1, 10'000'000>>;

    static constexpr LONGLONG StepsInMillisecond = 10'000;
    static constexpr LONGLONG StepsInSecond = 1'000 * StepsInMillisecond;

    constexpr TQTimeSpan() noexcept = default;
    // What is below a step is cut off, towards zero; what is longer than any span becomes the longest.
    template <class Number, class Unit>
    constexpr TQTimeSpan(std::chrono::duration<Number, Unit> duration) noexcept {
        constexpr LONGLONG most = std::numeric_limits<LONGLONG>::max();
        const double steps = std::chrono::duration<double, Duration::period>(duration).count();
        if (steps >= static_cast<double>(most))
            m_steps = most;
        else if (steps <= -static_cast<double>(most))
            m_steps = -most;
        else
            m_steps = std::chrono::duration_cast<Duration>(duration).count();
    }
    [[nodiscard]] constexpr Duration ToDuration() const noexcept { return Duration(m_steps); }
    // The longest span, which as a time-out never ends.
    [[nodiscard]] static constexpr TQTimeSpan Infinite() noexcept { return Duration::max(); }
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

    // As the milliseconds of a time-out: a part of one counts as a whole one, and what is below zero as none;
    // INFINITE (0xFFFFFFFF) for the longest span, one less for others of more than 49 days.
    [[nodiscard]] constexpr DWORD TimeoutMs() const noexcept {
        constexpr DWORD infinite = 0xFFFFFFFF;
        if (m_steps == Infinite().m_steps) return infinite;
        if (m_steps <= 0) return 0;
        const LONGLONG ms = (m_steps - 1) / StepsInMillisecond + 1;
        return ms < infinite ? static_cast<DWORD>(ms) : infinite - 1;
    }

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

template <>
struct std::hash<Quellan::Corvel::TQTimeSpan> {
    std::size_t operator()(Quellan::Corvel::TQTimeSpan span) const noexcept {
        return std::hash<long long>{}(span.Steps());
    }
};
