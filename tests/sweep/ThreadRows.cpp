#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQEvent.h"
#include "TQLib/threads/TQMsgThread.h"
#include "TQLib/threads/TQMutex.h"
#include "TQLib/threads/TQProcessLock.h"
#include "TQLib/threads/TQSignalLockSynch.h"
#include "TQLib/threads/TQThread.h"
#include "TQLib/threads/TQThreadCPUTimer.h"
#include "TQLib/threads/TQThreadPriority.h"
#include "TQLib/threads/TQThreadReadSynch.h"
#include "TQLib/threads/TQWaitList.h"
#include "TQLib/threads/TQWorkPool.h"
#include "support/ThrownCode.h"
#include "sweep/Rows.h"

#include <string>
#include <tuple>
#include <vector>

namespace Quellan::Corvel::Test {

namespace {

// At work until it is told to stop.
struct Patient : TQThread {
    ~Patient() override { EndThread(); }
    unsigned int RunWork(BYTEBuf&) override { return StopEvent().Wait(INFINITE); }
};

template <class Thread>
struct Started : Thread {
    explicit Started(bool suspended = false) { this->Start(suspended); }
    ~Started() override { this->EndThread(); }
};

// Free again in the end, whatever has failed.
struct Mutex : TQMutex {
    ~Mutex() override {
        EXPECT_EQ(ThrownCode([this] { Release(); }), DWORD{ERROR_NOT_OWNER});
    }
};

struct SignalLock {
    TQThreadSynch lock;
    TQSignalLockSynch signal{lock, true};
};

// `count` events, of which the last is set.
struct Watched {
    std::vector<TQEvent> events;
    TQWaitList list;

    explicit Watched(std::size_t count) {
        while (events.size() < count)
            events.emplace_back(true);
        for (const TQEvent& event : events)
            list.Add(event.Handle());
        events.back().Set();
    }
};

// Events with names, for which a list needs its thread on Linux, too. They are made once: that takes long.
const std::vector<TQEvent>& NamedEvents() {
    static const std::vector<TQEvent> events = [] {
        std::vector<TQEvent> made;
        while (made.size() <= MAXIMUM_WAIT_OBJECTS)
            made.emplace_back((L"TQLib sweep event " + std::to_wstring(made.size())).c_str(), false, true,
                              false);
        return made;
    }();
    return events;
}

class PoolThread : public TQPoolThread {
  public:
    ~PoolThread() override { EndThread(); }

  private:
    void OnWork(BYTEBuf&) override {}
};

using Pool = TQThreadPool<PoolThread>;

// A pool with a thread that has nothing to do.
struct BusyPool : Pool {
    DWORD requestor = GetNewRequestorID();

    BusyPool() { AddWork("work", 4, requestor); }
    ~BusyPool() override { CloseUp(); }
};

const char Item[1000] = {};

// What wakes, ends or waits for an end is done until it succeeds.
constexpr std::string_view Insisted = "SetEvent WaitForSingleObject WaitForMultipleObjects";

// A thread that can't be made is missed only where there is no other.
constexpr std::string_view OneThreadMore =
    "new CreateThread CreateEventW ResetEvent ResumeThread SetEvent WaitForMultipleObjects";

// A port that goes is emptied as far as it can be.
constexpr std::string_view Emptied = "GetQueuedCompletionStatus SetEvent WaitForMultipleObjects";

}  // namespace

std::vector<SweptOperation> ThreadRows() {
    const auto quiet = [] { return TQEvent(true); };
    const auto mutex = [] { return Mutex(); };
    const auto patient = [] { return Patient(); };
    const auto atWork = [] { return Started<Patient>(); };
    const auto pool = [] { return Pool(); };
    return {
        Swept("event object", quiet,
              [](TQEvent& e) {
                  e.Set();
                  EXPECT_TRUE(e.Wait(0));
                  e.Reset();
              }),
        Swept("named event", quiet, [](TQEvent&) { TQEvent(L"TQLib sweep event", false, true, false); }),
        Swept("mutex", mutex, "ReleaseMutex",
              [](TQMutex& m) {
                  const TQMutex::TQMutexLock lock(m, 0);
                  EXPECT_TRUE(lock.IsLocked());
              }),
        Swept("mutex and others", mutex, "ReleaseMutex",
              [](TQMutex& m) {
                  const TQEvent set(L"TQLib sweep event", false, true, true);
                  const HANDLE others[] = {set.Handle()};
                  TQMutex::TQMutexLock lock;
                  std::ignore = m.Acquire(lock, true, 0, others, 1);
                  EXPECT_TRUE(lock.IsLocked());
              }),
        Swept(
            "mutex release", [] { return TQMutex(); },
            [](TQMutex& m) { EXPECT_TRUE(m.Wait(0)), m.Release(); }),
        Swept("named mutex", mutex, [](TQMutex&) { TQMutex(L"TQLib sweep mutex", true); }),
        Swept(
            "read and write lock", [] { return TQThreadReadSynch(); }, Insisted,
            [](TQThreadReadSynch& lock) {
                { const TQThreadReadSynch::TQSynchLock reader(lock); }
                lock = TQThreadReadSynch();
                TQThreadWriteSynch write(lock);
                const TQThreadSynch::TQSynchLock writer(write);
            }),
        Swept(
            "signal lock", [] { return SignalLock(); }, "SetEvent",
            [](SignalLock& in) {
                in.signal.Set();
                EXPECT_TRUE(in.signal.GetLock(0));
                in.signal.Clear();
                EXPECT_FALSE(in.signal.GetLock(0));
            }),
        Swept("thread start", patient, Insisted,
              [](Patient& thread) {
                  try {
                      thread.Start();
                  } catch (...) {
                      EXPECT_EQ(thread.WaitForComplete(0), 0u);
                      throw;
                  }
              }),
        Swept(
            "thread resume", [] { return Started<Patient>(true); }, Insisted,
            [](Patient& thread) { thread.Resume(); }),
        Swept("thread end", patient, "SetEvent ResumeThread WaitForSingleObject WaitForMultipleObjects",
              [](Patient&) { Started<Patient>(), Started<Patient>(true); }),
        Swept("thread times", atWork,
              [](Patient& thread) { std::ignore = thread.CPUTime(), thread.RunningTime(); }),
        Swept("thread stop", atWork, Insisted, [](Patient& thread) { thread.StopAndWait(INFINITE); }),
        Swept("thread restart", atWork, Insisted, [](Patient& thread) { thread.Restart(); }),
        Swept("thread priority", patient, "SetThreadPriority",
              [](Patient&) { const TQThreadPriority lowest(THREAD_PRIORITY_LOWEST); }),
        Swept("thread timer", patient, [](Patient&) { std::ignore = TQThreadCPUTimer().Elapsed(); }),
        Swept(
            "message thread start", [] { return TQMsgThread(); }, {Promise::Ended, Insisted},
            [](TQMsgThread& thread) { thread.Start(); }),
        Swept(
            "message post", [] { return Started<TQMsgThread>(); },
            [](TQMsgThread& thread) { thread.PostMsg(WM_USER, 1, 2); }),
        Swept(
            "message thread handles", [] { return Started<TQMsgThread>(); }, Insisted,
            [](TQMsgThread& thread) {
                const TQEvent event(true);
                thread.AddWaitHandle(event.Handle());
                thread.RemoveWaitHandle(event.Handle());
            }),
        Swept(
            "wait list add", [] { return Watched(1); },
            [](Watched& in) {
                const TQEvent event(true);
                in.list.Add(event.Handle());
                EXPECT_EQ(in.list.Size(), 2u);
                in.list.Remove(event.Handle());
            }),
        Swept(
            "wait list", [] { return Watched(2); },
            [](Watched& in) { EXPECT_EQ(in.list.Wait(0), in.events.back().Handle()); }),
        Swept(
            "long wait list", [] { return Watched(70); }, "new SetEvent WaitForMultipleObjects",
            [](Watched& in) { EXPECT_EQ(in.list.Wait(INFINITE), in.events.back().Handle()); }),
        Swept(
            "long wait list emptied", [] { return TQWaitList(); }, "new SetEvent WaitForMultipleObjects",
            [](TQWaitList& list) {
                for (const TQEvent& event : NamedEvents())
                    list.Add(event.Handle());
                EXPECT_EQ(list.Wait(0), nullptr);
                EXPECT_TRUE(list.HasWaitThread());
                for (const TQEvent& event : NamedEvents())
                    list.Remove(event.Handle());
                EXPECT_EQ(list.Wait(0), nullptr);
                EXPECT_FALSE(list.HasWaitThread());
            }),
        Swept("pool", patient, Emptied, [](Patient&) { Pool(); }),
        Swept("pool first work", pool, Insisted,
              [](Pool& in) {
                  const DWORD before = in.WorkCount();
                  try {
                      in.AddWork(Item, sizeof Item);
                  } catch (...) {
                      EXPECT_EQ(in.WorkCount(), before);
                      throw;
                  }
              }),
        Swept(
            "pool work", [] { return BusyPool(); }, OneThreadMore,
            [](BusyPool& in) { in.AddWork(Item, sizeof Item, in.requestor); }),
        Swept(
            "pool requestors", [] { return BusyPool(); },
            [](BusyPool& in) {
                const DWORD id = in.GetNewRequestorID();
                in.ClearRequestorItems(id);
                in.ReleaseRequestorID(id);
                in.ClearAll();
            }),
        Swept(
            "pool stop", [] { return BusyPool(); }, Insisted, [](BusyPool& in) { in.StopThreads(); }),
        Swept("work pool", patient, Emptied,
              [](Patient&) {
                  _TQWorkPoolBase::AddClient();
                  _TQWorkPoolBase::DelClient();
              }),
        Swept("process lock", patient,
              [](Patient&) {
                  TQProcessLock::Lock();
                  TQProcessLock::Unlock();
              }),
    };
}

}  // namespace Quellan::Corvel::Test
