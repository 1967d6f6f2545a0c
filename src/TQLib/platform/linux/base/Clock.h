// The system's clock readings in the platform's units.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"

#include <ctime>

namespace Quellan::Platform {

constexpr std::uint64_t FileTimeStepsInSecond = 10'000'000;

// From 1601 to 1970.
constexpr std::uint64_t FileTimeOfUnixEpoch = 11'644'473'600 * FileTimeStepsInSecond;

// Steps of 100 nanoseconds.
inline std::uint64_t StepsOf(const timespec& time) noexcept {
    return static_cast<std::uint64_t>(time.tv_sec) * FileTimeStepsInSecond +
           static_cast<std::uint64_t>(time.tv_nsec) / 100;
}

inline FILETIME FileTimeOf(const timespec& time) noexcept {
    const std::uint64_t steps = FileTimeOfUnixEpoch + StepsOf(time);
    return {static_cast<DWORD>(steps), static_cast<DWORD>(steps >> 32)};
}

inline timespec ReadClock(clockid_t clock) noexcept {
    timespec time{};
    clock_gettime(clock, &time);
    return time;
}

// Local time.
inline tm FieldsOf(std::time_t seconds) noexcept {
    // The C library's lock for its time zone stays locked in the child of a fork.
    const WithoutFork withoutFork;
    tm fields;
    localtime_r(&seconds, &fields);
    return fields;
}

}  // namespace Quellan::Platform
