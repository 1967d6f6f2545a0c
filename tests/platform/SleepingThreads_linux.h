// Seeing from outside that a thread sleeps.
#pragma once

#include "platform/Win32.h"

#include <fstream>
#include <string>
#include <sys/syscall.h>

namespace Quellan::Corvel::Test {

// Returns once the thread sleeps on a futex.
inline void AwaitSleep(DWORD thread) {
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    long call = -1;
    while (call != SYS_futex) {
        call = -1;
        std::ifstream(path) >> call;
        SwitchToThread();
    }
}

}  // namespace Quellan::Corvel::Test
