#include "TQLib/platform/linux/files/ShareModes.h"

#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Errno.h"
#include "TQLib/platform/linux/base/Errors.h"
#include "TQLib/platform/linux/files/Files.h"

#include <bit>
#include <ctime>
#include <sched.h>

namespace Quellan::Platform {

namespace {

// Bytes, by their bits. In this order what a handle for reading takes is one lock, and what it looks for is
// another one, whatever else it shares; each lock is a call of the kernel.
enum : unsigned {
    Deletes = 1,
    KeepsReaders = 2,
    Writes = 4,
    KeepsWriters = 8,
    KeepsDeleters = 16,
    IsEntering = 32,
    Reads = 64,
};

struct Claim {
    unsigned own = 0;
    unsigned against = 0;  // what others may not hold
};

Claim ClaimOf(DWORD rights, DWORD share) noexcept {
    struct Kind {
        DWORD rights;
        DWORD share;
        unsigned does;
        unsigned keeps;
    };
    constexpr Kind Kinds[] = {{FILE_READ_DATA, FILE_SHARE_READ, Reads, KeepsReaders},
                              {FILE_WRITE_DATA | FILE_APPEND_DATA, FILE_SHARE_WRITE, Writes, KeepsWriters},
                              {DELETE, FILE_SHARE_DELETE, Deletes, KeepsDeleters}};
    Claim claim;
    for (const Kind& kind : Kinds) {
        if (rights & kind.rights) {
            claim.own |= kind.does;
            claim.against |= kind.keeps;
        }
        if (!(share & kind.share)) {
            claim.own |= kind.keeps;
            claim.against |= kind.does;
        }
    }
    return claim;
}

// Calls `use(first, count)` for each run of bytes; ends with the first one that is false.
bool ForEachRun(unsigned bytes, auto use) noexcept {
    for (int first = 0; bytes >> first; ++first) {
        int end = first;
        while (bytes >> end & 1)
            ++end;
        if (end == first) continue;
        if (!use(first, end - first)) return false;
        first = end;
    }
    return true;
}

bool Lock(int fd, int command, struct flock& lock, short type, int first, int count) noexcept {
    lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = OwnLockBytes + first;
    lock.l_len = count;
    return Retry([&] { return fcntl(fd, command, &lock); }) == 0;
}

bool Set(int fd, short type, unsigned bytes) noexcept {
    struct flock lock;
    return ForEachRun(bytes,
                      [&](int first, int count) { return Lock(fd, F_OFD_SETLK, lock, type, first, count); });
}

// What the descriptor or its file system answers whatever happens; other failures are of the moment.
bool KeepsNoLocks(int error) noexcept {
    return error == EBADF || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

// Without an answer somebody may hold them.
bool IsHeldByOthers(int fd, unsigned bytes) noexcept {
    const auto isFree = [fd](int first, int count) {
        struct flock lock;
        return Lock(fd, F_OFD_GETLK, lock, F_WRLCK, first, count) ? lock.l_type == F_UNLCK
                                                                  : KeepsNoLocks(errno);
    };
    // As a rule nobody holds those between them either.
    const int first = std::countr_zero(bytes), end = static_cast<int>(std::bit_width(bytes));
    return !isFree(first, end - first) && !ForEachRun(bytes, isFree);
}

// A while that differs from thread to thread: whoever meets again has to come apart.
void LetOthersPass(int attempt) noexcept {
    sched_yield();
    const long nap = 1000L * (gettid() % 31 + 1) * (attempt % 8);
    const timespec time{0, nap};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
}

}  // namespace

DWORD EnterShareMode(int fd, DWORD rights, DWORD share) noexcept {
    if (!(rights & (FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA | DELETE))) return ERROR_SUCCESS;
    const Claim claim = ClaimOf(rights, share);
    constexpr int Attempts = 400;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        if (!Set(fd, F_RDLCK, claim.own | IsEntering)) {
            const int error = errno;
            Set(fd, F_UNLCK, claim.own | IsEntering);
            // Somebody beside the layer holds these bytes for himself alone.
            if (error == EAGAIN || error == EACCES) return ERROR_SHARING_VIOLATION;
            if (!KeepsNoLocks(error)) return CodeFromErrno(error);
            return IsHeldByOthers(fd, claim.against) ? ERROR_SHARING_VIOLATION : ERROR_SUCCESS;
        }
        if (!IsHeldByOthers(fd, claim.against)) {
            Set(fd, F_UNLCK, IsEntering);
            return ERROR_SUCCESS;
        }
        const bool mayBackOut = IsHeldByOthers(fd, IsEntering);
        Set(fd, F_UNLCK, claim.own | IsEntering);
        if (!mayBackOut) return ERROR_SHARING_VIOLATION;
        LetOthersPass(attempt);
    }
    return ERROR_SHARING_VIOLATION;
}

}  // namespace Quellan::Platform
