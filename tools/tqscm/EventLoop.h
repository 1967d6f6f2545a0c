// The one thread of the manager: what is ready is served, what is due is done.
#pragma once

#include "TQLib/platform/linux/base/Descriptor.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>

namespace tqscm {

using Clock = std::chrono::steady_clock;
using Quellan::Platform::Descriptor;

// What has a descriptor to be watched.
class Source {
  public:
    virtual ~Source() = default;
    // `events` are those of epoll.
    virtual void OnReady(unsigned events) = 0;
    // Whether it is served before others that became ready at the same time.
    virtual bool ComesFirst() const { return false; }
};

class EventLoop {
  public:
    EventLoop();

    // The source is the loop's from now on. Throws std::system_error; the source is gone then.
    void Watch(int fd, unsigned events, std::unique_ptr<Source> source);
    void Change(int fd, unsigned events, Source& source);
    // The source hears nothing any more. It is deleted once nobody can be in the middle of it.
    void Forget(int fd, Source& source);

    // Does something once, later, unless the loop ends before.
    void After(std::chrono::milliseconds delay, std::function<void()> action);

    // Waits for something and serves it. An exception of a source or a timer is said and goes no further.
    void RunOnce();

  private:
    friend class Timer;
    using Timers = std::multimap<Clock::time_point, std::function<void()>>;

    int MsToNextTimer() const;
    void RunTimers();

    const Descriptor m_epoll;
    Timers m_timers;
    std::map<const Source*, std::unique_ptr<Source>> m_sources;
    std::map<const Source*, std::unique_ptr<Source>> m_forgotten;
    bool m_hasFailed = false;  // was said
};

// Does something once, later. Ends with its owner.
class Timer {
  public:
    explicit Timer(EventLoop& loop) : m_loop(loop), m_entry(loop.m_timers.end()) {}
    ~Timer() { Cancel(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // In place of what it was set to before.
    void Set(std::chrono::milliseconds delay, std::function<void()> action);
    void Cancel();
    bool IsSet() const { return m_entry != m_loop.m_timers.end(); }

  private:
    EventLoop& m_loop;
    EventLoop::Timers::iterator m_entry;
};

}  // namespace tqscm
