#include "threads/Cases.h"

#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

// The peers of the longest wait list have a descriptor for each of its objects.
void AllowManyDescriptors() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace Quellan::Corvel::Bench;
    // The C library spares a process of one thread the interlocked operations of its locks, and nobody who
    // needs a lock has such a process.
    std::thread([] {
        for (;;)
            pause();
    }).detach();
    AllowManyDescriptors();
    Contest contest;
    AddEvents(contest);
    AddWaitsForAny(contest);
    AddLocks(contest);
    AddWaitLists(contest);
    AddThreadStarts(contest);
    return contest.Run(argc, argv);
}
