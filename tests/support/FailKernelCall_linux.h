// Calls of the kernel that fail on demand, for programs that link tq_kernel_faults.
#pragma once

#include "support/FailCall.h"

namespace Quellan::Corvel::Test {

// While it lives, kernel call number `nth` (from 1) of the function `function`, open or fstat for example, on
// the constructing thread fails with `error`, an errno value, whoever calls: the library, the layer or the
// test. With null for `function` all calls that can fail are counted together; with `nth` 0 they are counted
// only. The source lists the functions; what gives something back (close, munmap) or waits is not among them.
class FailKernelCall : public Fault {
  public:
    static constexpr unsigned EveryCall = ~0u;

    FailKernelCall(const char* function, int error, unsigned nth = 1);
};

// Runs `operation` with its first kernel call failing with `error`, then its second, until the planned call
// no longer comes, and `check(nth)` after each of these runs.
template <class Operation, class Check>
void SweepKernelCalls(int error, Operation operation, Check check) {
    for (unsigned nth = 1;; ++nth) {
        SCOPED_TRACE("errno " + std::to_string(error) + " from kernel call " + std::to_string(nth));
        bool fired = false;
        {
            const FailKernelCall fault(nullptr, error, nth);
            operation();
            fired = fault.Fired();
        }
        if (!fired) return;
        check(nth);
    }
}

}  // namespace Quellan::Corvel::Test
