// What wakes a dispatcher that sleeps, from any thread and from signal handlers.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"

#include <poll.h>
#include <sys/eventfd.h>

namespace Quellan::Platform {

class ServiceWake {
  public:
    // False where the system has no descriptor for it.
    bool IsGood() const noexcept { return static_cast<bool>(m_event); }
    int Fd() const noexcept { return m_event.Get(); }

    void Set() const noexcept { static_cast<void>(eventfd_write(m_event.Get(), 1)); }
    void Reset() const noexcept {
        eventfd_t count = 0;
        static_cast<void>(eventfd_read(m_event.Get(), &count));
    }
    // Returns once it was set, which is over then, or after the time. Negative for no limit.
    void Wait(int ms) const noexcept {
        pollfd sleeping{.fd = m_event.Get(), .events = POLLIN, .revents = 0};
        poll(&sleeping, 1, ms);
        Reset();
    }

  private:
    const Descriptor m_event{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

}  // namespace Quellan::Platform
