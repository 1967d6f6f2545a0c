// Seeing from outside that a thread sleeps.
#pragma once

#include "TQLib/platform/Win32.h"

#include <fstream>
#include <string>
#include <sys/syscall.h>

namespace Quellan::Corvel::Test {

// Returns once the thread sleeps on a futex or on several, or has ended.
inline void AwaitSleep(DWORD thread) {
    constexpr long FutexWaitV = 449;
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    long call = -1;
    while (call != SYS_futex && call != FutexWaitV) {
        std::ifstream file(path);
        if (!file) return;
        if (!(file >> call)) call = -1;
        SwitchToThread();
    }
}

}  // namespace Quellan::Corvel::Test
