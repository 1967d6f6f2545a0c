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

TQ_KERNEL_CALL(access, MinusOne)
TQ_KERNEL_CALL(bind, MinusOne)
TQ_KERNEL_CALL(chmod, MinusOne)
TQ_KERNEL_CALL(connect, MinusOne)
TQ_KERNEL_CALL(dup3, MinusOne)
TQ_KERNEL_CALL(eventfd, MinusOne)
TQ_KERNEL_CALL(faccessat, MinusOne)
TQ_KERNEL_CALL(fchmod, MinusOne)
TQ_KERNEL_CALL(fcntl, MinusOne)
TQ_KERNEL_CALL(fdatasync, MinusOne)
TQ_KERNEL_CALL(fdopendir, Null)
TQ_KERNEL_CALL(fgetxattr, MinusOne)
TQ_KERNEL_CALL(fopen, Null)
TQ_KERNEL_CALL(fsetxattr, MinusOne)
TQ_KERNEL_CALL(fstat, MinusOne)
TQ_KERNEL_CALL(fstatat, MinusOne)
TQ_KERNEL_CALL(fsync, MinusOne)
TQ_KERNEL_CALL(ftruncate, MinusOne)
TQ_KERNEL_CALL(getcwd, Null)
TQ_KERNEL_CALL(linkat, MinusOne)
TQ_KERNEL_CALL(listen, MinusOne)
TQ_KERNEL_CALL(lseek, MinusOne)
TQ_KERNEL_CALL(lstat, MinusOne)
TQ_KERNEL_CALL(mkdir, MinusOne)
TQ_KERNEL_CALL(mkdirat, MinusOne)
TQ_KERNEL_CALL(mlock, MinusOne)
TQ_KERNEL_CALL(mmap, MinusOne)
TQ_KERNEL_CALL(mprotect, MinusOne)
TQ_KERNEL_CALL(open, MinusOne)
TQ_KERNEL_CALL(openat, MinusOne)
TQ_KERNEL_CALL(posix_fallocate, ItsError)
TQ_KERNEL_CALL(pread, MinusOne)
TQ_KERNEL_CALL(pthread_create, ItsError)
TQ_KERNEL_CALL(pwrite, MinusOne)
TQ_KERNEL_CALL(read, MinusOne)
TQ_KERNEL_CALL(readdir, Null)
TQ_KERNEL_CALL(readlink, MinusOne)
TQ_KERNEL_CALL(realpath, Null)
TQ_KERNEL_CALL(recv, MinusOne)
TQ_KERNEL_CALL(rename, MinusOne)
TQ_KERNEL_CALL(renameat, MinusOne)
TQ_KERNEL_CALL(renameat2, MinusOne)
TQ_KERNEL_CALL(rmdir, MinusOne)
TQ_KERNEL_CALL(sched_getaffinity, MinusOne)
TQ_KERNEL_CALL(send, MinusOne)
TQ_KERNEL_CALL(sendto, MinusOne)
TQ_KERNEL_CALL(setxattr, MinusOne)
TQ_KERNEL_CALL(socket, MinusOne)
TQ_KERNEL_CALL(stat, MinusOne)
TQ_KERNEL_CALL(statx, MinusOne)
TQ_KERNEL_CALL(timer_create, MinusOne)
TQ_KERNEL_CALL(unlink, MinusOne)
TQ_KERNEL_CALL(unlinkat, MinusOne)
TQ_KERNEL_CALL(write, MinusOne)

}  // namespace Quellan::Corvel::Test
