#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQWaitList.h"
#include "threads/Cases.h"
#include "threads/Peers.h"

#include <algorithm>
#include <optional>
#include <string>
#include <sys/epoll.h>
#include <thread>
#include <time.h>
#include <vector>

namespace Quellan::Corvel::Bench {

namespace {

constexpr auto Where = Setting::OneCore;

// Many events, and a list of them all, which belongs to the thread that calls `Wait` first.

class LibraryList {
  public:
    explicit LibraryList(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            m_events.emplace_back(false);
        // The list sees to those with the lowest handles itself.
        std::ranges::sort(m_events, {}, &TQEvent::Handle);
    }

    void SetLast() { m_events.back().Set(); }
    bool Wait(bool look = false) { return List().Wait(look ? 0 : INFINITE) != nullptr; }
    void Exchange(std::size_t index) {
        List().Remove(m_events[index].Handle());
        List().Add(m_events[index].Handle());
    }
    std::size_t Size() const { return m_events.size(); }

  private:
    TQWaitList& List() {
        if (!m_list) {
            m_list.emplace();
            for (const TQEvent& event : m_events)
                m_list->Add(event.Handle());
        }
        return *m_list;
    }

    std::vector<TQEvent> m_events;
    std::optional<TQWaitList> m_list;
};

class Epoll {
  public:
    explicit Epoll(std::size_t count) : m_events(count) {
        for (std::size_t i = 0; i < count; ++i)
            Add(i);
    }
    ~Epoll() { close(m_list); }
    Epoll(const Epoll&) = delete;

    void SetLast() { m_events.back().Set(); }
    bool Wait(bool look = false) {
        epoll_event event;
        if (epoll_wait(m_list, &event, 1, look ? 0 : -1) != 1) return false;
        return m_events[event.data.u64].Wait();
    }
    void Exchange(std::size_t index) {
        epoll_ctl(m_list, EPOLL_CTL_DEL, m_events[index].Get(), nullptr);
        Add(index);
    }
    std::size_t Size() const { return m_events.size(); }

  private:
    void Add(std::size_t index) {
        epoll_event event = {.events = EPOLLIN, .data = {.u64 = index}};
        epoll_ctl(m_list, EPOLL_CTL_ADD, m_events[index].Get(), &event);
    }

    const int m_list = epoll_create1(0);
    std::vector<EventDescriptor> m_events;
};

template <class List>
class SetAndWait {
  public:
    explicit SetAndWait(std::size_t count) : m_list(count) {}
    void operator()() {
        m_list.SetLast();
        Keep(m_list.Wait());
    }

  private:
    List m_list;
};

// From the signal for one event to the return of a wait that began some time before, on another thread.
template <class List>
class WakeUp {
  public:
    explicit WakeUp(std::size_t count)
        : m_list(count), m_waiter([this] {
              for (bool isOver = false; !isOver;) {
                  m_list.Wait();
                  if (m_meter) m_reading = m_meter->Read();
                  isOver = m_isOver;
                  m_returned.Set();
              }
          }) {}
    ~WakeUp() {
        m_isOver = true;
        m_list.SetLast();
        m_waiter.join();
    }

    Measurement Measure(std::size_t count) {
        constexpr timespec someTime{0, 10'000'000};
        Measurement sum;
        for (; count != 0; --count) {
            nanosleep(&someTime, nullptr);
            m_meter.emplace(Where);
            m_list.SetLast();
            m_returned.Wait();
            sum.processor += m_reading.processor;
            sum.wall += m_reading.wall;
        }
        return sum;
    }

  private:
    List m_list;
    FutexEvent m_returned;
    std::optional<Meter> m_meter;  // this and the next are handed over with the events
    Measurement m_reading;
    bool m_isOver = false;
    std::thread m_waiter;
};

// Takes out one event of the list, now here, now there, and puts it back.
template <class List, bool LooksBetween>
class Exchange {
  public:
    explicit Exchange(std::size_t count) : m_list(count) {}
    void operator()() {
        constexpr std::size_t step = 7919;
        if (LooksBetween) Keep(m_list.Wait(true));
        m_index = (m_index + step) % m_list.Size();
        m_list.Exchange(m_index);
    }

  private:
    List m_list;
    std::size_t m_index = 0;
};

}  // namespace

void AddWaitLists(Contest& contest) {
    for (const std::size_t count : {std::size_t{1000}, std::size_t{10000}}) {
        const std::string list = "list of " + std::to_string(count);
        const auto add = [&]<class Library, class Peer>(const char* what, auto... arguments) {
            const std::string work = list + what;
            contest.AddMade<Library>(Where, work, "TQWaitList", arguments...);
            contest.AddMade<Peer>(Where, work, "epoll, eventfd", arguments...);
        };
        add.operator()<SetAndWait<LibraryList>, SetAndWait<Epoll>>(": set, wait", count);
        add.operator()<WakeUp<LibraryList>, WakeUp<Epoll>>(": set, wake up", count);
        add.operator()<Exchange<LibraryList, false>, Exchange<Epoll, false>>(": remove, add", count);
        add.operator()<Exchange<LibraryList, true>, Exchange<Epoll, true>>(": look, remove, add", count);
    }
}

}  // namespace Quellan::Corvel::Bench
