// Waiting for what no handle tells.
#pragma once

#include "TQLib/platform/Win32.h"

namespace Quellan::Corvel::Test {

// Looks until `condition` holds and returns whether it does, false after two minutes: only a fault makes it take
// so long.
template <class Condition>
[[nodiscard]] bool Eventually(Condition condition) {
    constexpr DWORD LimitMs = 120'000, LookMs = 2;
    for (const ULONGLONG end = GetTickCount64() + LimitMs; !condition(); Sleep(LookMs))
        if (GetTickCount64() > end) return false;
    return true;
}

}  // namespace Quellan::Corvel::Test
