// Two threads that take turns.
#pragma once

#include "support/Bench.h"

#include <array>
#include <thread>

namespace Quellan::Corvel::Bench {

// One operation is a round trip: the measuring thread, side 0, gives its turn to the other and waits to get
// it back.
//
// `Baton` has `Give(side)`, which ends that side's turn, and `Take(side)`, which waits for it; side 0 begins.
// It is made on the measuring thread.
template <class Baton>
class RoundTrip {
  public:
    template <class... Arguments>
    explicit RoundTrip(Setting setting, Arguments... arguments)
        : m_baton(arguments...), m_partner([this, setting] {
              PlaceWorker(setting, 0);
              for (bool isOver = false; !isOver;) {
                  m_baton.Take(1);
                  isOver = m_isOver;
                  m_baton.Give(1);
              }
          }) {}
    ~RoundTrip() {
        m_isOver = true;
        m_baton.Give(0);
        m_partner.join();
    }

    void operator()() {
        m_baton.Give(0);
        m_baton.Take(0);
    }

  private:
    Baton m_baton;
    bool m_isOver = false;  // belongs to whose turn it is
    std::thread m_partner;
};

// A turn is an event of its own for each side.
template <class Event>
class EventBaton {
  public:
    void Give(std::size_t side) { m_events[1 - side].Set(); }
    void Take(std::size_t side) { m_events[side].Wait(); }

  private:
    std::array<Event, 2> m_events;
};

}  // namespace Quellan::Corvel::Bench
