#include "TQLib/platform/linux/process/Com.h"

#include <atomic>

namespace Quellan::Platform {

namespace {

constinit std::atomic<ULONG> g_serverReferences{0};

}  // namespace

ULONG CoAddRefServerProcess() noexcept {
    return ++g_serverReferences;
}

ULONG CoReleaseServerProcess() noexcept {
    ULONG count = g_serverReferences;
    while (count != 0)
        if (g_serverReferences.compare_exchange_weak(count, count - 1)) return count - 1;
    return 0;
}

}  // namespace Quellan::Platform
