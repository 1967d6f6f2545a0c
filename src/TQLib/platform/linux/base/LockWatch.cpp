#include "TQLib/platform/linux/base/LockWatch.h"

#if defined(TQ_FAULT_POINTS)

#include <atomic>
#include <cstdlib>

namespace Quellan::Platform {

namespace {

thread_local unsigned t_held = 0;
thread_local unsigned t_heldObjects = 0;
constinit std::atomic<unsigned long> g_waits{0};
constinit std::atomic<unsigned long> g_wakes{0};
constinit std::atomic<bool> g_abort{false};

}  // namespace

unsigned long WaitsUnderLock() noexcept {
    return g_waits;
}

void AbortOnWaitUnderLock(bool abort) noexcept {
    g_abort = abort;
}

unsigned long WakesUnderHold() noexcept {
    return g_wakes;
}

void EnteredWatchedLock() noexcept {
    ++t_held;
}

void LeftWatchedLock() noexcept {
    --t_held;
}

void BeforeWait() noexcept {
    if (t_held == 0) return;
    ++g_waits;
    if (g_abort) std::abort();
}

void HeldObject() noexcept {
    ++t_heldObjects;
}

void LeftObject() noexcept {
    --t_heldObjects;
}

void BeforeWake() noexcept {
    if (t_heldObjects != 0) ++g_wakes;
}

}  // namespace Quellan::Platform

#endif
