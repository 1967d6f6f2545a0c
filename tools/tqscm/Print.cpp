#include "Print.h"

#include "TQLib/platform/linux/base/Descriptor.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>

namespace tqscm {

using namespace Quellan::Platform;

namespace {

class Output {
  public:
    Output() {
        struct stat info;
        if (fstat(STDERR_FILENO, &info) != 0) return;
        m_isSocket = S_ISSOCK(info.st_mode);
        // Services write to the same pipe or terminal, and are not to hear that it is full.
        if (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode))
            m_own = Descriptor(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    // False where it was not written.
    [[gnu::format(printf, 2, 3)]] bool Write(const char* format, ...) const {
        std::va_list arguments;
        va_start(arguments, format);
        const bool isWritten = Write(format, arguments);
        va_end(arguments);
        return isWritten;
    }
    [[gnu::format(printf, 2, 0)]] bool Write(const char* format, std::va_list arguments) const {
        char line[1024] = "tqscm: ";
        const std::size_t begin = std::strlen(line);
        const int size = std::vsnprintf(line + begin, sizeof line - begin - 1, format, arguments);
        std::size_t end = std::min(begin + static_cast<std::size_t>(std::max(size, 0)), sizeof line - 2);
        line[end++] = '\n';
        const auto write = [&] {
            return m_isSocket ? send(STDERR_FILENO, line, end, MSG_DONTWAIT | MSG_NOSIGNAL)
                              : ::write(m_own ? m_own.Get() : STDERR_FILENO, line, end);
        };
        return Retry(write) >= 0;
    }

  private:
    bool m_isSocket = false;
    Descriptor m_own;
};

}  // namespace

void Print(const char* format, ...) {
    static const Output output;
    static unsigned dropped = 0;
    if (dropped && output.Write("%u lines were dropped", dropped)) dropped = 0;
    std::va_list arguments;
    va_start(arguments, format);
    if (!output.Write(format, arguments)) ++dropped;
    va_end(arguments);
}

}  // namespace tqscm
