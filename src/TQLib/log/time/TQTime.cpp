#include "TQLib/log/time/TQTime.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <chrono>

namespace Quellan::Corvel {

namespace {

using namespace std::chrono;

constexpr int FirstYear = 1601;
constexpr int LastYear = 30827;

constexpr bool Within(int value, int first, int last) {
    return value >= first && value <= last;
}

TQTime::Fields FieldsOf(const SYSTEMTIME& time) {
    return {time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds};
}

SYSTEMTIME SystemTimeOf(const TQTime::Fields& fields) {
    const auto word = [](int value) { return static_cast<WORD>(value); };
    return {word(fields.year), word(fields.month),  word(fields.dayOfWeek), word(fields.day),
            word(fields.hour), word(fields.minute), word(fields.second),    word(fields.millisecond)};
}

}  // namespace

TQTime::TQTime(const Fields& fields) {
    const year_month_day date{year(fields.year), month(static_cast<unsigned>(fields.month)),
                              day(static_cast<unsigned>(fields.day))};
    if (!Within(fields.year, FirstYear, LastYear) || !Within(fields.month, 1, 12) ||
        !Within(fields.day, 1, 31) || !date.ok() || !Within(fields.hour, 0, 23) ||
        !Within(fields.minute, 0, 59) || !Within(fields.second, 0, 59) || !Within(fields.millisecond, 0, 999))
        TQStdExceptions::ThrowParameterInvalidError(L"TQTime::TQTime");
    *this = TQTime(sys_days(date) + hours(fields.hour) + minutes(fields.minute) + seconds(fields.second) +
                   milliseconds(fields.millisecond));
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
    const sys_time<milliseconds> time = ToSysTime();
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

TQString TQTime::FormatTime(TimeFormat format, LCID locale) const {
    constexpr std::size_t Longest = 80;  // of any locale, with much to spare
    wchar_t text[Longest];
    const std::size_t length = FormatTimeTo(text, format, locale);
    return TQString(text, length);
}

std::size_t TQTime::FormatTimeTo(std::span<wchar_t> out, TimeFormat format, LCID locale) const {
    const SYSTEMTIME time = SystemTimeOf(ToFields());
    const int size = GetTimeFormatW(locale, format, &time, nullptr, out.data(), static_cast<int>(out.size()));
    if (size == 0) TQSysException::ThrowLastError(L"TQTime::FormatTimeTo");
    return static_cast<std::size_t>(size) - 1;
}

}  // namespace Quellan::Corvel
