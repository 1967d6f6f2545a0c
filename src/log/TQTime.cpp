#include "log/TQTime.h"

#include "core/TQStdExceptions.h"
#include "platform/Win32.h"

#include <chrono>

namespace Quellan::Corvel {

namespace {

using namespace std::chrono;

constexpr sys_days Beginning = year(1601) / January / 1;
constexpr int FirstYear = 1601;
constexpr int LastYear = 30827;

constexpr bool Within(int value, int first, int last) {
    return value >= first && value <= last;
}

TQTime::Fields FieldsOf(const SYSTEMTIME& time) {
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds};
}

}  // namespace

TQTime::TQTime(const Fields& fields) {
    const year_month_day date{year(fields.year), month(static_cast<unsigned>(fields.month)),
                              day(static_cast<unsigned>(fields.day))};
    if (!Within(fields.year, FirstYear, LastYear) || !Within(fields.month, 1, 12) ||
        !Within(fields.day, 1, 31) || !date.ok() || !Within(fields.hour, 0, 23) ||
        !Within(fields.minute, 0, 59) || !Within(fields.second, 0, 59) || !Within(fields.millisecond, 0, 999))
        TQStdExceptions::ThrowParameterInvalidError(L"TQTime::TQTime");
    const auto sinceBeginning = sys_days(date) - Beginning + hours(fields.hour) + minutes(fields.minute) +
                                seconds(fields.second) + milliseconds(fields.millisecond);
    m_ms = sinceBeginning.count();
}

TQTime TQTime::CurrentTime() noexcept {
    SYSTEMTIME now;
    GetLocalTime(&now);
    return TQTime(FieldsOf(now));
}

TQTime TQTime::CurrentUTCTime() noexcept {
    SYSTEMTIME now;
    GetSystemTime(&now);
    return TQTime(FieldsOf(now));
}

TQTime::Fields TQTime::ToFields() const noexcept {
    const sys_time<milliseconds> time = Beginning + milliseconds(m_ms);
    const sys_days date = floor<days>(time);
    const year_month_day calendar(date);
    const hh_mm_ss clock(time - date);
    return {static_cast<int>(calendar.year()),
            static_cast<int>(static_cast<unsigned>(calendar.month())),
            static_cast<int>(static_cast<unsigned>(calendar.day())),
            static_cast<int>(clock.hours().count()),
            static_cast<int>(clock.minutes().count()),
            static_cast<int>(clock.seconds().count()),
            static_cast<int>(clock.subseconds().count()),
            static_cast<int>(weekday(date).c_encoding())};
}

}  // namespace Quellan::Corvel
