#include "TQLib/platform/linux/base/FaultPoint.h"
#include "support/FailCall.h"
#include "support/Resources.h"
#include "support/StackedPlan_linux.h"

#include <atomic>
#include <cstdlib>
#include <dirent.h>
#include <new>

namespace Quellan::Corvel::Test {

namespace {

struct AllocationPlan {
    unsigned nth;
    unsigned calls = 0;
    AllocationPlan* next = nullptr;
};

AllocationPlan*& ThreadAllocationPlans() noexcept {
    static constinit thread_local AllocationPlan* t_plans = nullptr;
    return t_plans;
}

bool AllocationFaultDue() noexcept {
    bool due = false;
    for (AllocationPlan* plan = ThreadAllocationPlans(); plan; plan = plan->next)
        if (++plan->calls == plan->nth) due = true;
    return due;
}

constinit std::atomic<std::size_t> g_blocks = 0;

void* Counted(void* block) noexcept {
    if (block) g_blocks.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void Free(void* block) noexcept {
    if (block) g_blocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

void* Allocate(std::size_t bytes) noexcept {
    return AllocationFaultDue() ? nullptr : Counted(std::malloc(bytes ? bytes : 1));
}

void* AllocateAligned(std::size_t bytes, std::align_val_t alignment) noexcept {
    if (AllocationFaultDue()) return nullptr;
    const auto boundary = static_cast<std::size_t>(alignment);
    return Counted(std::aligned_alloc(boundary, (bytes + boundary - 1) / boundary * boundary));
}

void* OrThrow(void* block) {
    if (!block) throw std::bad_alloc();
    return block;
}

std::size_t Entries(const char* folder) {
    DIR* const open = opendir(folder);
    std::size_t entries = 0;
    while (open && readdir(open))
        ++entries;
    if (open) closedir(open);
    return entries;
}

}  // namespace

Resources Resources::Now() {
    return {g_blocks.load(std::memory_order_relaxed), Entries("/proc/self/fd"), Entries("/proc/self/task")};
}

bool FailCall::CanWatch(const char*) {
    return true;
}

FailCall::FailCall(const char* function, DWORD code, unsigned nth, std::uintptr_t)
    : Fault(function, nth,
            std::make_unique<StackedPlan<Plan, Platform::FaultPlan>>(
                &Platform::ThreadFaultPlans, Platform::FaultPlan{function, nth, code})) {}

FailAllocation::FailAllocation(unsigned nth)
    : Fault(
          "operator new", nth,
          std::make_unique<StackedPlan<Plan, AllocationPlan>>(&ThreadAllocationPlans, AllocationPlan{nth})) {}

}  // namespace Quellan::Corvel::Test

// The program's operator new takes the place of the runtime library's for every module of the process. It
// stands on malloc, which the sanitizers watch.
using Quellan::Corvel::Test::Allocate;
using Quellan::Corvel::Test::AllocateAligned;
using Quellan::Corvel::Test::Free;
using Quellan::Corvel::Test::OrThrow;

// For single objects and for arrays.
#define TQ_NEW(parameters, qualifier, block)    \
    void* operator new parameters qualifier {   \
        return block;                           \
    }                                           \
    void* operator new[] parameters qualifier { \
        return block;                           \
    }
TQ_NEW((std::size_t bytes), , OrThrow(Allocate(bytes)))
TQ_NEW((std::size_t bytes, const std::nothrow_t&), noexcept, Allocate(bytes))
TQ_NEW((std::size_t bytes, std::align_val_t a), , OrThrow(AllocateAligned(bytes, a)))
TQ_NEW((std::size_t bytes, std::align_val_t a, const std::nothrow_t&), noexcept, AllocateAligned(bytes, a))

#define TQ_DELETE(parameters)                    \
    void operator delete parameters noexcept {   \
        Free(block);                             \
    }                                            \
    void operator delete[] parameters noexcept { \
        Free(block);                             \
    }
TQ_DELETE((void* block))
TQ_DELETE((void* block, std::size_t))
TQ_DELETE((void* block, const std::nothrow_t&))
TQ_DELETE((void* block, std::align_val_t))
TQ_DELETE((void* block, std::size_t, std::align_val_t))
TQ_DELETE((void* block, std::align_val_t, const std::nothrow_t&))
