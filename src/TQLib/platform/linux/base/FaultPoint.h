// Platform calls that fail on demand, in test builds only: with TQ_FAULT_POINTS undefined nothing of this is
// compiled in.
#pragma once

#include "TQLib/platform/Types.h"

namespace Quellan::Platform {

#if defined(TQ_FAULT_POINTS)

// One planned failure on one thread: call number `nth` (from 1) of `function`, or every call, fails with
// `code`. Plans of a thread form a stack; they live on the stack of the test that made them.
struct FaultPlan {
    static constexpr unsigned EveryCall = ~0u;

    const char* function;
    unsigned nth;
    DWORD code;
    unsigned calls = 0;
    FaultPlan* next = nullptr;
    void (*reached)() = nullptr;  // called by each call; null for nothing
};

TQLIB_API FaultPlan*& ThreadFaultPlans() noexcept;

// The code with which this call of `function` has to fail, or 0. A call of the kernel's own fails with an errno.
// Where the code is of no account it marks a place at which a test may act in between.
TQLIB_API DWORD FaultDue(const char* function) noexcept;

#else

constexpr DWORD FaultDue(const char*) noexcept {
    return 0;
}

#endif

}  // namespace Quellan::Platform
