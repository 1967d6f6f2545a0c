// Points in time.
#pragma once

#include "TQLib/log/time/TQTimeSpan.h"
#include "TQLib/platform/Types.h"
#include "TQLib/text/TQString.h"

#include <functional>
#include <span>

// A macro in X11's headers, which stays its own.
#pragma push_macro("CurrentTime")
#undef CurrentTime

namespace Quellan::Corvel {

// A point in time with a precision of one millisecond, as a clock on the wall shows it: it does not know
// whether it is local time or UTC, and comparing and subtracting make sense among times of one kind. A value.
class TQLIB_API TQTime {
  public:
    // The reading of the calendar and the clock. `dayOfWeek` is 0 on Sundays.
    struct Fields {
        int year, month, day;
        int hour = 0, minute = 0, second = 0, millisecond = 0;
        int dayOfWeek = 0;
    };

    // No time: the beginning of the year 1601, before all others.
    constexpr TQTime() noexcept = default;
    // `dayOfWeek` is ignored. Throws 87 (ERROR_INVALID_PARAMETER) for a reading that no calendar or clock
    // shows, and for years outside of 1601 to 30827.
    explicit TQTime(const Fields& fields);
    // A point of the standard library's system clock, in UTC; what is below a millisecond is cut off.
    template <class Duration>
    constexpr explicit TQTime(std::chrono::time_point<std::chrono::system_clock, Duration> time) noexcept
        : m_ms((std::chrono::floor<std::chrono::milliseconds>(time) - Beginning()).count()) {}
    // The same point, for a time in UTC.
    [[nodiscard]] constexpr std::chrono::time_point<std::chrono::system_clock, std::chrono::milliseconds>
    ToSysTime() const noexcept {
        return Beginning() + std::chrono::milliseconds(m_ms);
    }

    // Now, by the local clock and in UTC.
    [[nodiscard]] static TQTime CurrentTime() noexcept;
    [[nodiscard]] static TQTime CurrentUTCTime() noexcept;

    [[nodiscard]] constexpr bool IsNull() const noexcept { return m_ms == 0; }
    [[nodiscard]] Fields ToFields() const noexcept;

    // How a time of day is written: the platform's flags (TIME_FORCE24HOURFORMAT and its like), which can be
    // combined.
    using TimeFormat = DWORD;
    static constexpr TimeFormat DefaultTimeFormat = 0;
    static constexpr TimeFormat NoMarkerTimeFormat = 4;
    static constexpr TimeFormat Hour24TimeFormat = 8;
    // 24 hours, and nothing that tells the halves of the day apart.
    static constexpr TimeFormat Hour24NoMarkerTimeFormat = Hour24TimeFormat | NoMarkerTimeFormat;

    // The time of day as `locale` writes it. Throws `TQSysException` with the platform's code.
    [[nodiscard]] TQString FormatTime(TimeFormat format, LCID locale) const;
    // The same into `out`, which then holds a terminated text; returns its length. Throws 122
    // (ERROR_INSUFFICIENT_BUFFER) too.
    [[nodiscard]] std::size_t FormatTimeTo(std::span<wchar_t> out, TimeFormat format, LCID locale) const;

    friend constexpr auto operator<=>(TQTime a, TQTime b) noexcept = default;
    friend constexpr TQTimeSpan operator-(TQTime a, TQTime b) noexcept {
        return TQTimeSpan::FromMilliseconds(a.m_ms - b.m_ms);
    }
    // What is below a millisecond in the span is cut off.
    constexpr TQTime& operator+=(TQTimeSpan span) noexcept {
        m_ms += span.Milliseconds();
        return *this;
    }
    constexpr TQTime& operator-=(TQTimeSpan span) noexcept { return *this += -span; }
    friend constexpr TQTime operator+(TQTime time, TQTimeSpan span) noexcept { return time += span; }
    friend constexpr TQTime operator-(TQTime time, TQTimeSpan span) noexcept { return time -= span; }

  private:
    // The year 1601, in days from 1970.
    static constexpr std::chrono::time_point<std::chrono::system_clock, std::chrono::days>
    Beginning() noexcept {
        return std::chrono::time_point<std::chrono::system_clock, std::chrono::days>(
            std::chrono::days(-134'774));
    }

    LONGLONG m_ms = 0;  // since then
};

}  // namespace Quellan::Corvel

template <>
struct std::hash<Quellan::Corvel::TQTime> {
    std::size_t operator()(Quellan::Corvel::TQTime time) const noexcept {
        return std::hash<Quellan::Corvel::TQTimeSpan>{}(time - Quellan::Corvel::TQTime());
    }
};

#pragma pop_macro("CurrentTime")
