#include "support/FailKernelCall_linux.h"

#include "support/StackedPlan_linux.h"

#include <cerrno>
#include <cstring>
#include <dlfcn.h>

namespace Quellan::Corvel::Test {

namespace {

struct KernelPlan {
    const char* function;  // null: all
    unsigned nth;
    int error;
    unsigned calls = 0;
    KernelPlan* next = nullptr;
};

KernelPlan*& ThreadKernelPlans() noexcept {
    static constinit thread_local KernelPlan* t_plans = nullptr;
    return t_plans;
}

int KernelFaultDue(const char* function) noexcept {
    int error = 0;
    for (KernelPlan* plan = ThreadKernelPlans(); plan; plan = plan->next) {
        if (plan->function && std::strcmp(plan->function, function) != 0) continue;
        ++plan->calls;
        if (plan->nth == plan->calls || plan->nth == FailKernelCall::EveryCall) error = plan->error;
    }
    return error;
}

using Call = long (*)(long, long, long, long, long, long);

}  // namespace

FailKernelCall::FailKernelCall(const char* function, int error, unsigned nth)
    : Fault(function ? function : "the kernel", nth,
            std::make_unique<StackedPlan<Plan, KernelPlan>>(&ThreadKernelPlans,
                                                            KernelPlan{function, nth, error})) {}

// The program's functions take the place of the C library's for every module of the process. All of them take
// up to six integers or addresses, which their callers pass in registers, so one form serves them all.
#define TQ_KERNEL_CALL(name, failure)                                                                     \
    extern "C"                                                                                            \
        [[gnu::visibility("default")]] long Kernel_##name(long, long, long, long, long, long) asm(#name); \
    long Kernel_##name(long a, long b, long c, long d, long e, long f) {                                  \
        static constinit Call real = nullptr;                                                             \
        if (const int error = KernelFaultDue(#name)) return failure(error);                               \
        Call call = __atomic_load_n(&real, __ATOMIC_RELAXED);                                             \
        if (!call) {                                                                                      \
            call = reinterpret_cast<Call>(dlsym(RTLD_NEXT, #name));                                       \
            __atomic_store_n(&real, call, __ATOMIC_RELAXED);                                              \
        }                                                                                                 \
        return call(a, b, c, d, e, f);                                                                    \
    }

namespace {

long MinusOne(int error) noexcept {
    errno = error;
    return -1;
}
long Null(int error) noexcept {
    errno = error;
    return 0;
}
long ItsError(int error) noexcept {
    return error;
}

}  // namespace

// clang-format off
#define TQ_CALLS_THAT_GIVE_MINUS_ONE(call) \
    call(access) call(bind) call(chmod) call(connect) call(dup3) call(eventfd) call(faccessat) call(fchmod) \
    call(fcntl) call(fdatasync) call(fgetxattr) call(fsetxattr) call(fstat) call(fstatat) call(fsync) \
    call(ftruncate) call(linkat) call(listen) call(lseek) call(lstat) call(mkdir) call(mkdirat) call(mlock) \
    call(mmap) call(mprotect) call(open) call(openat) call(pread) call(pwrite) call(read) call(readlink) \
    call(recv) call(rename) call(renameat) call(renameat2) call(rmdir) call(sched_getaffinity) call(send) \
    call(sendto) call(setxattr) call(socket) call(stat) call(statx) call(timer_create) call(unlink) \
    call(unlinkat) call(write)
// clang-format on
#define TQ_GIVES_MINUS_ONE(name) TQ_KERNEL_CALL(name, MinusOne)

TQ_CALLS_THAT_GIVE_MINUS_ONE(TQ_GIVES_MINUS_ONE)
TQ_KERNEL_CALL(fdopendir, Null)
TQ_KERNEL_CALL(fopen, Null)
TQ_KERNEL_CALL(getcwd, Null)
TQ_KERNEL_CALL(readdir, Null)
TQ_KERNEL_CALL(realpath, Null)
TQ_KERNEL_CALL(posix_fallocate, ItsError)
TQ_KERNEL_CALL(pthread_create, ItsError)

}  // namespace Quellan::Corvel::Test
