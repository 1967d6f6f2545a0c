#include "TQLib/platform/SecretPages.h"

#include <cerrno>
#include <sys/mman.h>
#include <sys/resource.h>

namespace Quellan::Platform {

void KeepPagesPrivate(void* pages, std::size_t bytes) noexcept {
    const int saved = errno;
    madvise(pages, bytes, MADV_DONTDUMP);
    // A kernel that can't wipe them leaves them out of the child, who may not touch them then.
    if (madvise(pages, bytes, MADV_WIPEONFORK) != 0) madvise(pages, bytes, MADV_DONTFORK);
    errno = saved;
}

void RaiseLockLimit() noexcept {
    const int saved = errno;
    rlimit limit;
    if (getrlimit(RLIMIT_MEMLOCK, &limit) == 0 && limit.rlim_cur != limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_MEMLOCK, &limit);
    }
    errno = saved;
}

}  // namespace Quellan::Platform
