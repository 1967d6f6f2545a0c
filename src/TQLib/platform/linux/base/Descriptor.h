// An owned file descriptor, and reading of the small files the kernel offers.
#pragma once

#include "TQLib/platform/Types.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace Quellan::Platform {

// Closes its descriptor; movable, empty when -1. The closing never disturbs errno.
class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) noexcept : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor() {
        if (m_fd < 0) return;
        const int saved = errno;
        close(m_fd);  // not repeated after EINTR: the descriptor is gone already
        errno = saved;
    }

    explicit operator bool() const noexcept { return m_fd >= 0; }
    int Get() const noexcept { return m_fd; }
    int Release() noexcept { return std::exchange(m_fd, -1); }

  private:
    int m_fd = -1;
};

// Repeats a system call while a signal interrupts it.
template <class Call>
auto Retry(Call call) noexcept {
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

// Reads the beginning of a file, at most what `buffer` holds; empty when it cannot be read.
template <std::size_t N>
std::string_view ReadStart(const char* path, char (&buffer)[N]) noexcept {
    const Descriptor file(Retry([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
    std::size_t size = 0;
    while (file && size < N) {
        const ssize_t got = Retry([&] { return read(file.Get(), buffer + size, N - size); });
        if (got <= 0) break;
        size += static_cast<std::size_t>(got);
    }
    return {buffer, size};
}

}  // namespace Quellan::Platform
