// Writing to what may have no reader any more.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"

#include <csignal>

namespace Quellan::Platform {

// write(2), which fails with EPIPE for a pipe or socket without a reader and sends the process no SIGPIPE.
inline ssize_t WriteQuietly(int fd, const void* data, std::size_t size) noexcept {
    sigset_t brokenPipe, before, pending;
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &brokenPipe, &before);
    sigpending(&pending);
    const ssize_t written = write(fd, data, size);
    const int error = errno;
    // The signal is this thread's, and is taken before it can be delivered; one that waited already stays.
    if (written < 0 && error == EPIPE && !sigismember(&pending, SIGPIPE)) {
        constexpr timespec AtOnce{};
        Retry([&] { return sigtimedwait(&brokenPipe, nullptr, &AtOnce); });
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return written;
}

}  // namespace Quellan::Platform
