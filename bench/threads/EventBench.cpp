#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQEvent.h"
#include "threads/Cases.h"
#include "threads/Peers.h"
#include "threads/Turns.h"

#include <Poco/Event.h>
#include <semaphore>

namespace Quellan::Corvel::Bench {

namespace {

class LibraryEvent {
  public:
    void Set() { m_event.Set(); }
    bool TryWait() { return m_event.Wait(0); }
    void Wait() { static_cast<void>(m_event.Wait(INFINITE)); }

  private:
    TQEvent m_event{false};
};

class PlatformEvent {
  public:
    void Set() { SetEvent(m_event.Get()); }
    bool TryWait() { return WaitForSingleObject(m_event.Get(), 0) == WAIT_OBJECT_0; }
    void Wait() { WaitForSingleObject(m_event.Get(), INFINITE); }

  private:
    TQUniqueHandle<_TQKernelHandleClose> m_event{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

class Semaphore {
  public:
    void Set() { m_semaphore.release(); }
    void Wait() { m_semaphore.acquire(); }

  private:
    std::binary_semaphore m_semaphore{0};
};

class PocoEvent {
  public:
    void Set() { m_event.set(); }
    bool TryWait() { return m_event.tryWait(0); }
    void Wait() { m_event.wait(); }

  private:
    Poco::Event m_event;
};

class PolledDescriptor : public EventDescriptor {
  public:
    PolledDescriptor() : EventDescriptor(EFD_NONBLOCK) {}
    bool TryWait() { return Wait(); }
};

template <class Event>
class SetAndLook {
  public:
    void operator()() {
        m_event.Set();
        Keep(m_event.TryWait());
    }

  private:
    Event m_event;
};

void AddRoundTrips(Contest& contest, Setting setting) {
    const char* const work = "event: round trip";
    contest.AddMade<RoundTrip<EventBaton<LibraryEvent>>>(setting, work, "TQEvent", setting);
    contest.AddMade<RoundTrip<EventBaton<PlatformEvent>>>(setting, work, "SetEvent, WaitForSingle...",
                                                          setting);
    contest.AddMade<RoundTrip<EventBaton<FutexEvent>>>(setting, work, "futex", setting);
    contest.AddMade<RoundTrip<EventBaton<Semaphore>>>(setting, work, "std::binary_semaphore", setting);
    contest.AddMade<RoundTrip<EventBaton<PlainEvent>>>(setting, work, "mutex and condition", setting);
    contest.AddMade<RoundTrip<EventBaton<PocoEvent>>>(setting, work, "Poco::Event", setting);
    contest.AddMade<RoundTrip<EventBaton<EventDescriptor>>>(setting, work, "eventfd", setting);
}

}  // namespace

void AddEvents(Contest& contest) {
    constexpr auto alone = Setting::OneThread;
    const char* const work = "event: set, look";
    contest.AddMade<SetAndLook<LibraryEvent>>(alone, work, "TQEvent");
    contest.AddMade<SetAndLook<PlatformEvent>>(alone, work, "SetEvent, WaitForSingle...");
    contest.AddMade<SetAndLook<PlainEvent>>(alone, work, "mutex and condition");
    contest.AddMade<SetAndLook<PocoEvent>>(alone, work, "Poco::Event");
    contest.AddMade<SetAndLook<PolledDescriptor>>(alone, work, "eventfd");
    AddRoundTrips(contest, Setting::OneCore);
    AddRoundTrips(contest, Setting::AllCores);
}

}  // namespace Quellan::Corvel::Bench
