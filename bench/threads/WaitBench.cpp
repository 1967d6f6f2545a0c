#include "TQLib/platform/Win32.h"
#include "TQLib/text/memory/TQHandle.h"
#include "threads/Cases.h"
#include "threads/Peers.h"
#include "threads/Turns.h"

#include <array>
#include <deque>
#include <poll.h>
#include <string>
#include <vector>

namespace Quellan::Corvel::Bench {

namespace {

class PlatformEvents {
  public:
    PlatformEvents(std::size_t count, bool manualReset) {
        for (std::size_t i = 0; i < count; ++i) {
            m_owners.emplace_back(CreateEventW(nullptr, manualReset, FALSE, nullptr));
            m_handles.push_back(m_owners.back().Get());
        }
    }

    void SetLast() { SetEvent(m_handles.back()); }
    std::size_t WaitForAny() {
        return WaitForMultipleObjects(static_cast<DWORD>(m_handles.size()), m_handles.data(), FALSE,
                                      INFINITE);
    }

  private:
    std::vector<TQUniqueHandle<_TQKernelHandleClose>> m_owners;
    std::vector<HANDLE> m_handles;
};

class PlainEvents {
  public:
    PlainEvents(std::size_t count, bool manualReset) {
        for (std::size_t i = 0; i < count; ++i)
            m_events.emplace_back(manualReset);
    }

    void SetLast() { m_events.back().Set(); }
    std::size_t WaitForAny() { return PlainEvent::WaitForAny(m_events); }

  private:
    std::deque<PlainEvent> m_events;
};

class Descriptors {
  public:
    Descriptors(std::size_t count, bool manualReset) : m_manualReset(manualReset), m_events(count) {
        for (const EventDescriptor& event : m_events)
            m_polls.push_back({event.Get(), POLLIN, 0});
    }

    void SetLast() { m_events.back().Set(); }
    std::size_t WaitForAny() {
        poll(m_polls.data(), m_polls.size(), -1);
        std::size_t index = 0;
        while (!(m_polls[index].revents & POLLIN))
            ++index;
        if (!m_manualReset) m_events[index].Wait();
        return index;
    }

  private:
    const bool m_manualReset;
    std::vector<EventDescriptor> m_events;
    std::vector<pollfd> m_polls;
};

// The last one is signalled already and stays so.
template <class Events>
class WaitForSignalled {
  public:
    explicit WaitForSignalled(std::size_t count) : m_events(count, true) { m_events.SetLast(); }
    void operator()() { Keep(m_events.WaitForAny()); }

  private:
    Events m_events;
};

// Either side waits for its events, and the last one is set.
template <class Events>
class EventsBaton {
  public:
    explicit EventsBaton(std::size_t count) : m_sides{Events(count, false), Events(count, false)} {}
    void Give(std::size_t side) { m_sides[1 - side].SetLast(); }
    void Take(std::size_t side) { m_sides[side].WaitForAny(); }

  private:
    std::array<Events, 2> m_sides;
};

}  // namespace

void AddWaitsForAny(Contest& contest) {
    constexpr const char* library = "WaitForMultipleObjects";
    for (const std::size_t count : {std::size_t{2}, std::size_t{16}, std::size_t{64}}) {
        const std::string work = "any of " + std::to_string(count);

        constexpr auto alone = Setting::OneThread;
        const std::string signalled = work + ": signalled";
        contest.AddMade<WaitForSignalled<PlatformEvents>>(alone, signalled, library, count);
        contest.AddMade<WaitForSignalled<PlainEvents>>(alone, signalled, "mutexes and condition", count);
        contest.AddMade<WaitForSignalled<Descriptors>>(alone, signalled, "poll, eventfd", count);

        constexpr auto core = Setting::OneCore;
        const std::string trip = work + ": round trip";
        contest.AddMade<RoundTrip<EventsBaton<PlatformEvents>>>(core, trip, library, core, count);
        contest.AddMade<RoundTrip<EventBaton<FutexEvent>>>(core, trip, "futex, one", core);
        contest.AddMade<RoundTrip<EventsBaton<Descriptors>>>(core, trip, "poll, eventfd", core, count);
    }
}

}  // namespace Quellan::Corvel::Bench
