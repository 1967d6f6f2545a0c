#include "EventLoop.h"

#include "Print.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <poll.h>
#include <sys/epoll.h>
#include <system_error>

namespace tqscm {

namespace {

// When the system cannot say what is ready, which does not end the manager.
constexpr int FailurePauseMs = 100;

// What one source or timer cannot do does not keep the others from being served.
template <class Action>
void Serve(Action action) {
    try {
        action();
    } catch (const std::exception& failure) {
        Print("something was not done: %s", failure.what());
    }
}

}  // namespace

EventLoop::EventLoop() : m_epoll(epoll_create1(EPOLL_CLOEXEC)) {
    if (!m_epoll) throw std::system_error(errno, std::generic_category(), "epoll_create1");
}

void EventLoop::Watch(int fd, unsigned events, std::unique_ptr<Source> source) {
    epoll_event event{.events = events, .data = {.ptr = source.get()}};
    const auto added = m_sources.emplace(source.get(), std::move(source)).first;
    if (epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, fd, &event) == 0) return;
    const int error = errno;
    m_sources.erase(added);
    throw std::system_error(error, std::generic_category(), "epoll_ctl");
}

void EventLoop::Change(int fd, unsigned events, Source& source) {
    epoll_event event{.events = events, .data = {.ptr = &source}};
    epoll_ctl(m_epoll.Get(), EPOLL_CTL_MOD, fd, &event);
}

void EventLoop::Forget(int fd, Source& source) {
    epoll_ctl(m_epoll.Get(), EPOLL_CTL_DEL, fd, nullptr);
    m_forgotten.insert(m_sources.extract(&source));
}

void EventLoop::After(std::chrono::milliseconds delay, std::function<void()> action) {
    const auto entry = m_timers.emplace(Clock::now() + delay, nullptr);
    entry->second = [this, entry, action = std::move(action)] {
        m_timers.erase(entry);
        action();
    };
}

int EventLoop::MsToNextTimer() const {
    if (m_timers.empty()) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(m_timers.begin()->first - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
}

void EventLoop::RunTimers() {
    const auto now = Clock::now();
    while (!m_timers.empty() && m_timers.begin()->first <= now) {
        const auto action = std::move(m_timers.begin()->second);
        Serve(action);  // which takes the entry away
    }
}

void EventLoop::RunOnce() {
    m_forgotten.clear();
    std::array<epoll_event, 256> events;
    const int count =
        epoll_wait(m_epoll.Get(), events.data(), static_cast<int>(events.size()), MsToNextTimer());
    if (count < 0 && errno != EINTR) {
        if (!std::exchange(m_hasFailed, true)) Print("waiting fails: %s", std::strerror(errno));
        poll(nullptr, 0, FailurePauseMs);
    }
    const auto end = events.begin() + std::max(count, 0);
    std::stable_partition(events.begin(), end, [](const epoll_event& event) {
        return static_cast<const Source*>(event.data.ptr)->ComesFirst();
    });
    std::for_each(events.begin(), end, [&](const epoll_event& event) {
        auto* const source = static_cast<Source*>(event.data.ptr);
        if (!m_forgotten.contains(source)) Serve([&] { source->OnReady(event.events); });
    });
    RunTimers();
}

void Timer::Set(std::chrono::milliseconds delay, std::function<void()> action) {
    Cancel();
    m_entry = m_loop.m_timers.emplace(Clock::now() + delay, [this, action = std::move(action)] {
        Cancel();
        action();
    });
}

void Timer::Cancel() {
    if (IsSet()) m_loop.m_timers.erase(std::exchange(m_entry, m_loop.m_timers.end()));
}

}  // namespace tqscm
