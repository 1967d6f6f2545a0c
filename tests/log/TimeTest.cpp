#include "TQLib/log/time/TQTime.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Win32.h"
#include "support/Eventually.h"
#include "support/FailCall.h"

#include <array>
#include <chrono>
#include <limits>

using namespace Quellan::Corvel;
using namespace Quellan::Corvel::Test;

namespace {

TQTime At(int year, int month, int day, int hour = 0, int minute = 0, int second = 0, int ms = 0) {
    return TQTime(TQTime::Fields{year, month, day, hour, minute, second, ms});
}

TEST(TimeSpan, CutsOffTowardsZero) {
    const TQTimeSpan span = TQTimeSpan::FromMilliseconds(1999) + TQTimeSpan::FromSteps(9999);
    EXPECT_EQ(span.Seconds(), 1);
    EXPECT_EQ(span.Milliseconds(), 1999);
    EXPECT_EQ((-span).Seconds(), -1);
    EXPECT_EQ((-span).Milliseconds(), -1999);
    EXPECT_EQ(span - TQTimeSpan::FromSeconds(1), TQTimeSpan::FromSteps(9'999'999));
    EXPECT_LT(-span, TQTimeSpan());
}

TEST(TimeSpan, GoesToAndFromTheStandardLibrarysDurations) {
    using namespace std::chrono_literals;
    constexpr DWORD infinite = INFINITE;
    const struct {
        TQTimeSpan span;
        LONGLONG steps;
        DWORD timeoutMs;
    } spans[] = {
        {0s, 0, 0},
        {1500ms, 15'000'000, 1500},
        {-3s, -30'000'000, 0},
        {199ns, 1, 1},
        {-199ns, -1, 0},
        {1ms + 1us, 10'010, 2},
        {std::chrono::duration<double>(0.25), 2'500'000, 250},
        {4'294'967'293ms, 42'949'672'930'000, infinite - 2},
        {4'294'967'295ms, 42'949'672'950'000, infinite - 1},
        {std::chrono::hours::max(), std::numeric_limits<LONGLONG>::max(), infinite},
        {std::chrono::hours::min(), -std::numeric_limits<LONGLONG>::max(), 0},
        {TQTimeSpan::Infinite(), std::numeric_limits<LONGLONG>::max(), infinite},
    };
    for (const auto& row : spans) {
        EXPECT_EQ(row.span.Steps(), row.steps);
        EXPECT_EQ(row.span.TimeoutMs(), row.timeoutMs) << row.steps;
        EXPECT_EQ(row.span.ToDuration().count(), row.steps);
    }
}

TEST(Time, GoesToAndFromTheStandardLibrarysClocks) {
    using namespace std::chrono;
    const sys_days leapDay = 2024y / February / 29;
    EXPECT_EQ(TQTime(leapDay + 23h + 1999us), At(2024, 2, 29, 23, 0, 0, 1));
    EXPECT_EQ(TQTime(sys_time<nanoseconds>(-1ns)), At(1969, 12, 31, 23, 59, 59, 999)) << "cut off downwards";
    EXPECT_EQ(At(2024, 2, 29, 1).ToSysTime(), leapDay + 1h);
    EXPECT_EQ(At(30827, 12, 31).ToSysTime(), sys_days(30827y / December / 31));
    const TQTime before(system_clock::now() - 1s), after(system_clock::now() + 1s);
    EXPECT_LT(before, TQTime::CurrentUTCTime());
    EXPECT_GT(after, TQTime::CurrentUTCTime());
}

TEST(Time, GivesBackItsFields) {
    const TQTime leapDay = At(2024, 2, 29, 23, 59, 58, 999);
    const TQTime::Fields fields = leapDay.ToFields();
    EXPECT_EQ((std::array{fields.year, fields.month, fields.day, fields.hour, fields.minute, fields.second,
                          fields.millisecond}),
              (std::array{2024, 2, 29, 23, 59, 58, 999}));
    EXPECT_EQ(fields.dayOfWeek, 4) << "a Thursday";
    EXPECT_EQ((leapDay + TQTimeSpan::FromMilliseconds(1'001)).ToFields().month, 3);
    EXPECT_EQ(At(30827, 12, 31).ToFields().year, 30827);
}

TEST(Time, RefusesWhatNoCalendarOrClockShows) {
    const TQTime::Fields wrong[] = {{1600, 12, 31},
                                    {30828, 1, 1},
                                    {2023, 2, 29},
                                    {2024, 0, 1},
                                    {2024, 13, 1},
                                    {2024, 1, 0},
                                    {2024, 4, 31},
                                    {2024, 1, 1, 24},
                                    {2024, 1, 1, 0, 60},
                                    {2024, 1, 1, 0, 0, 60},
                                    {2024, 1, 1, 0, 0, 0, 1000},
                                    {2024, 1, 1, -1},
                                    {2024, 256 + 1, 1},
                                    {2024, 1, 256 + 1}};
    for (const auto& fields : wrong)
        EXPECT_EQ(ThrownCode([&] { TQTime time(fields); }), 87u)
            << fields.year << ' ' << fields.month << ' ' << fields.day;
}

TEST(Time, IsComparedAndSubtracted) {
    const TQTime before = At(2023, 12, 31, 23, 59, 59, 999), after = At(2024, 1, 1);
    EXPECT_LT(before, after);
    EXPECT_EQ(after - before, TQTimeSpan::FromMilliseconds(1));
    EXPECT_EQ(before + (after - before), after);
    EXPECT_EQ(after - TQTimeSpan::FromMilliseconds(1), before);
    EXPECT_TRUE(TQTime().IsNull());
    EXPECT_LT(TQTime(), before);
    EXPECT_EQ(At(1601, 1, 1), TQTime());
}

TEST(Time, ReadsTheLocalClockAndTheUniversalOne) {
    SYSTEMTIME local, universal;
    const TQTime firstLocal = TQTime::CurrentTime(), firstUniversal = TQTime::CurrentUTCTime();
    GetLocalTime(&local);
    GetSystemTime(&universal);
    const auto fromSystem = [](const SYSTEMTIME& t) {
        return At(t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds);
    };
    EXPECT_LE(firstLocal, fromSystem(local));
    EXPECT_LE(fromSystem(local), TQTime::CurrentTime());
    EXPECT_LE(firstUniversal, fromSystem(universal));
    EXPECT_LE(fromSystem(universal), TQTime::CurrentUTCTime());
    EXPECT_GT(firstUniversal, At(2024, 1, 1));
    EXPECT_EQ(universal.wDayOfWeek, fromSystem(universal).ToFields().dayOfWeek);
}

TEST(Timer, RunsOnTheCounterOrElseOnTheTickCount) {
    const TQTimer precise;
    EXPECT_TRUE(precise.IsHighResolution());
    TQTimer coarse = [] {
        const FailCall fail("QueryPerformanceFrequency", ERROR_NOT_SUPPORTED);
        return TQTimer();
    }();
    EXPECT_FALSE(coarse.IsHighResolution());
    constexpr DWORD sleepMs = 60;
    const ULONGLONG before = GetTickCount64();
    coarse.Restart();
    const TQTimer started;
    Sleep(sleepMs);
    // The system may wake a sleeper a tick early.
    constexpr LONGLONG tickMs = 20;
    EXPECT_GE(started.Elapsed().Milliseconds(), LONGLONG{sleepMs} - tickMs);
    EXPECT_GE(coarse.Elapsed().Milliseconds(), LONGLONG{sleepMs} - tickMs);
    const LONGLONG elapsed = coarse.Elapsed().Milliseconds();
    EXPECT_LE(elapsed, static_cast<LONGLONG>(GetTickCount64() - before));
    coarse.Restart();
    EXPECT_LT(coarse.Elapsed(), precise.Elapsed());
}

TEST(CountdownTimer, RunsDownToZero) {
    TQCountdownTimer timer(60'000);
    EXPECT_FALSE(timer.IsExpired());
    EXPECT_LE(timer.Remaining(), 60'000u);
    EXPECT_GT(timer.Remaining(), 0u);
    timer.Restart(1);
    EXPECT_TRUE(Eventually([&] { return timer.IsExpired(); }));
    EXPECT_EQ(timer.Remaining(), 0u);
    EXPECT_TRUE(TQCountdownTimer(0).IsExpired());
}

TEST(CountdownTimer, NeverRunsDownFromInfinite) {
    TQCountdownTimer timer(INFINITE), meanwhile(2);
    EXPECT_TRUE(Eventually([&] { return meanwhile.IsExpired(); }));
    EXPECT_EQ(timer.Remaining(), DWORD{INFINITE});
    EXPECT_FALSE(timer.IsExpired());
    timer.Restart(INFINITE - 1);
    EXPECT_LT(timer.Remaining(), DWORD{INFINITE});
}

}  // namespace
