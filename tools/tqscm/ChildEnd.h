// The end of a process, whoever has started it.
#pragma once

#include "EventLoop.h"

#include <sys/types.h>

namespace tqscm {

class ChildEnd : public Source {
  public:
    // Calls `atEnd` once, later, also where the process has ended already. Where there is no descriptor for it the
    // process is looked at from time to time.
    static void Watch(EventLoop& loop, pid_t pid, std::function<void()> atEnd);

    void OnReady(unsigned events) override;

  private:
    ChildEnd(EventLoop& loop, Descriptor process, std::function<void()> atEnd)
        : m_loop(loop), m_process(std::move(process)), m_atEnd(std::move(atEnd)) {}

    EventLoop& m_loop;
    const Descriptor m_process;
    const std::function<void()> m_atEnd;
};

}  // namespace tqscm
