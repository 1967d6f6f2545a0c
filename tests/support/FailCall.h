// Platform calls and allocations that fail on demand.
#pragma once

#include "TQLib/platform/Types.h"
#include "support/ThrownCode.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>

namespace Quellan::Corvel::Test {

// What the faults below have in common. A planned failure whose function was never called fails the test:
// nothing was tested then.
class Fault {
  public:
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    // The number of calls seen so far.
    unsigned Calls() const noexcept { return m_plan->Calls(); }
    // For calls that another thread may make instead of this one.
    void MayNotCome() noexcept { m_mayNotCome = true; }
    // True once the planned call has failed.
    bool Fired() const noexcept { return m_nth != 0 && Calls() >= m_nth; }

  protected:
    class Plan {
      public:
        virtual ~Plan() = default;
        virtual unsigned Calls() const noexcept = 0;
    };

    Fault(const char* function, unsigned nth, std::unique_ptr<Plan> plan)
        : m_function(function), m_nth(nth), m_plan(std::move(plan)) {}
    ~Fault() {
        const unsigned calls = Calls();
        m_plan.reset();
        EXPECT_TRUE(m_nth == 0 || calls > 0 || m_mayNotCome) << m_function << " was never called";
    }

  private:
    const char* m_function;
    unsigned m_nth;
    bool m_mayNotCome = false;
    std::unique_ptr<Plan> m_plan;
};

// While it lives, call number `nth` (from 1) of the platform function `function` on the constructing thread
// fails with `code`; every other call goes through. With `nth` 0 the calls are only counted. Several may live
// at once, also for the same function, and must end in the reverse order on the thread that made them, or
// when that has ended.
//
// On Windows the library's calls are seen, not the test's own. A failing call returns `result`, so functions
// whose failure value isn't 0 need it: INVALID_HANDLE_VALUE for CreateFileW, the code itself for the Reg
// functions. A function that the library doesn't import by name fails the test.
//
// On Linux all calls on the thread are seen, and a failing one returns the function's own failure value. Only
// functions with a fault point are seen.
class FailCall : public Fault {
  public:
    // As `nth`: all of them fail.
    static constexpr unsigned EveryCall = ~0u;

    FailCall(const char* function, DWORD code, unsigned nth = 1, std::uintptr_t result = 0);

    // Whether the library's calls of the function can be seen: on Windows those that it imports.
    static bool CanWatch(const char* function);
};

// While it lives, allocation number `nth` (from 1) of operator new on the constructing thread throws
// std::bad_alloc, or gives null where that is its way to fail, whoever allocates: the library, the runtime
// library or the test. With `nth` 0 allocations are only counted. On Windows the memory of a thrown exception
// is counted too.
class FailAllocation : public Fault {
  public:
    explicit FailAllocation(unsigned nth = 1);
};

// Runs `operation` with `fault` planned for its first call, then its second, until the planned call no longer
// comes. Each run with a failed call must throw `code`; `check` then looks at what is left.
template <class MakeFault, class Operation, class Check>
void SweepFault(MakeFault makeFault, DWORD code, Operation& operation, Check& check) {
    for (unsigned nth = 1;; ++nth) {
        SCOPED_TRACE("with call " + std::to_string(nth) + " failing");
        DWORD thrown = 0;
        bool fired = false;
        {
            auto fault = makeFault(nth);
            thrown = ThrownCode(operation);
            fired = fault.Fired();
        }
        if (!fired) {
            EXPECT_EQ(thrown, 0u) << "thrown without a failing call";
            EXPECT_GT(nth, 1u) << "the operation never came to the call";
            return;
        }
        EXPECT_EQ(thrown, code);
        check();
    }
}

// Makes each call of `function` that `operation` comes to fail in turn, one a run: each such run must throw
// `code`, the last one nothing. `check` is called after each throw, once the fault is gone. `result` as for
// FailCall.
template <class Operation, class Check>
void SweepFaults(const char* function, DWORD code, Operation operation, Check check,
                 std::uintptr_t result = 0) {
    SweepFault([&](unsigned nth) { return FailCall(function, code, nth, result); }, code, operation, check);
}

// The same for each allocation; each failure must be thrown as ERROR_OUTOFMEMORY.
template <class Operation, class Check>
void SweepAllocations(Operation operation, Check check) {
    SweepFault([](unsigned nth) { return FailAllocation(nth); }, 14, operation, check);
}

}  // namespace Quellan::Corvel::Test
