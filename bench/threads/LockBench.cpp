#include "TQLib/core/base/TQThreadSynch.h"
#include "TQLib/platform/Win32.h"
#include "TQLib/threads/TQMutex.h"
#include "TQLib/threads/TQThreadReadSynch.h"
#include "threads/Cases.h"
#include "threads/Turns.h"

#include <array>
#include <barrier>
#include <condition_variable>
#include <latch>
#include <mutex>
#include <pthread.h>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

namespace Quellan::Corvel::Bench {

namespace {

class LibraryMutex {
  public:
    void Acquire() { static_cast<void>(m_mutex.Wait(INFINITE)); }
    void Release() { m_mutex.Release(); }

  private:
    TQMutex m_mutex;
};

class PlatformMutex {
  public:
    void Acquire() { WaitForSingleObject(m_mutex.Get(), INFINITE); }
    void Release() { ReleaseMutex(m_mutex.Get()); }

  private:
    TQUniqueHandle<_TQKernelHandleClose> m_mutex{CreateMutexW(nullptr, FALSE, nullptr)};
};

// Of three mutexes whose turn it is holds two, and the other side the third, while it waits for the older one
// of the two: so each step hands a mutex over, and neither side can overtake the other.
template <class Mutex>
class RelayBaton {
  public:
    RelayBaton() {
        m_mutexes[0].Acquire();
        m_mutexes[1].Acquire();
    }
    void Give(std::size_t side) {
        if (side == 0) m_otherBegan.wait();
        std::size_t& older = m_older[side];
        m_mutexes[older].Release();
        older = Next(older);
    }
    void Take(std::size_t side) {
        if (side == 1 && !m_otherBegan.try_wait()) {
            m_mutexes[m_older[1]].Acquire();
            m_otherBegan.count_down();
        }
        m_mutexes[Next(m_older[side])].Acquire();
    }

  private:
    static constexpr std::size_t Next(std::size_t index) { return (index + 1) % 3; }

    std::array<Mutex, 3> m_mutexes;
    std::array<std::size_t, 2> m_older{0, 2};  // of each side's mutexes
    std::latch m_otherBegan{1};
};

class ConditionBaton {
  public:
    void Give(std::size_t side) {
        {
            const std::scoped_lock lock(m_lock);
            m_turn = 1 - side;
        }
        m_changed.notify_one();
    }
    void Take(std::size_t side) {
        std::unique_lock lock(m_lock);
        m_changed.wait(lock, [&] { return m_turn == side; });
    }

  private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::size_t m_turn = 0;
};

// Locks, each with a function that takes it around a piece of work.

class LibrarySection {
  public:
    template <class Work>
    void Locked(Work work) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        work();
    }

  private:
    TQThreadSynch m_lock;
};

class PlatformSection {
  public:
    PlatformSection() { InitializeCriticalSection(&m_section); }
    ~PlatformSection() { DeleteCriticalSection(&m_section); }
    template <class Work>
    void Locked(Work work) {
        EnterCriticalSection(&m_section);
        work();
        LeaveCriticalSection(&m_section);
    }

  private:
    CRITICAL_SECTION m_section;
};

template <class Mutex>
class StandardLock {
  public:
    template <class Work>
    void Locked(Work work) {
        const std::scoped_lock lock(m_mutex);
        work();
    }

  private:
    Mutex m_mutex;
};

class LibraryReadLock {
  public:
    template <class Work>
    void Locked(Work work) {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        work();
    }

  private:
    TQThreadReadSynch m_lock;
};

class LibraryWriteLock {
  public:
    template <class Work>
    void Locked(Work work) {
        const TQThreadSynch::TQSynchLock guard(m_writers);
        work();
    }

  private:
    TQThreadReadSynch m_lock;
    TQThreadWriteSynch m_writers{m_lock};
};

template <int (*Lock)(pthread_rwlock_t*)>
class PosixLock {
  public:
    ~PosixLock() { pthread_rwlock_destroy(&m_lock); }
    template <class Work>
    void Locked(Work work) {
        Lock(&m_lock);
        work();
        pthread_rwlock_unlock(&m_lock);
    }

  private:
    pthread_rwlock_t m_lock = PTHREAD_RWLOCK_INITIALIZER;
};
using PosixReadLock = PosixLock<pthread_rwlock_rdlock>;
using PosixWriteLock = PosixLock<pthread_rwlock_wrlock>;

class StandardReadLock {
  public:
    template <class Work>
    void Locked(Work work) {
        const std::shared_lock lock(m_mutex);
        work();
    }

  private:
    std::shared_mutex m_mutex;
};

template <class Lock>
class Uncontended {
  public:
    void operator()() {
        m_lock.Locked([] { Keep(0); });
    }

  private:
    Lock m_lock;
};

// One operation: some threads take the lock `Repetitions` times each, all of them at once.
template <class Lock, unsigned Repetitions>
class Crowd {
  public:
    Crowd(Setting setting, unsigned threads) : m_begin(threads + 1), m_end(threads + 1) {
        for (unsigned i = 0; i < threads; ++i)
            m_threads.emplace_back([this, setting, i] { Work(setting, i); });
    }
    ~Crowd() {
        m_isOver = true;
        m_begin.arrive_and_wait();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    void operator()() {
        m_begin.arrive_and_wait();
        m_end.arrive_and_wait();
    }

  private:
    void Work(Setting setting, unsigned number) {
        PlaceWorker(setting, number);
        for (;;) {
            m_begin.arrive_and_wait();
            if (m_isOver) return;
            for (unsigned i = 0; i < Repetitions; ++i) {
                m_lock.Locked([] { DoNothing(20); });
                DoNothing(20);
            }
            m_end.arrive_and_wait();
        }
    }

    static void DoNothing(unsigned steps) {
        for (; steps != 0; --steps)
            Keep(steps);
    }

    Lock m_lock;
    bool m_isOver = false;  // read behind the barrier
    std::barrier<> m_begin;
    std::barrier<> m_end;
    std::vector<std::thread> m_threads;
};

void AddHandOvers(Contest& contest, Setting setting) {
    const char* const work = "mutex: hand over and back";
    contest.AddMade<RoundTrip<RelayBaton<LibraryMutex>>>(setting, work, "TQMutex", setting);
    contest.AddMade<RoundTrip<RelayBaton<PlatformMutex>>>(setting, work, "ReleaseMutex, WaitForSi...",
                                                          setting);
    contest.AddMade<RoundTrip<ConditionBaton>>(setting, work, "std::mutex and condition", setting);
}

void AddUncontended(Contest& contest) {
    constexpr auto alone = Setting::OneThread;
    const char* const section = "critical section";
    contest.AddMade<Uncontended<LibrarySection>>(alone, section, "TQThreadSynch");
    contest.AddMade<Uncontended<PlatformSection>>(alone, section, "EnterCriticalSection");
    contest.AddMade<Uncontended<StandardLock<std::recursive_mutex>>>(alone, section, "std::recursive_mutex");

    const char* const read = "read lock";
    contest.AddMade<Uncontended<LibraryReadLock>>(alone, read, "TQThreadReadSynch");
    contest.AddMade<Uncontended<PosixReadLock>>(alone, read, "pthread_rwlock");
    contest.AddMade<Uncontended<StandardReadLock>>(alone, read, "std::shared_mutex");

    const char* const write = "write lock";
    contest.AddMade<Uncontended<LibraryWriteLock>>(alone, write, "TQThreadWriteSynch");
    contest.AddMade<Uncontended<PosixWriteLock>>(alone, write, "pthread_rwlock");
    contest.AddMade<Uncontended<StandardLock<std::shared_mutex>>>(alone, write, "std::shared_mutex");
}

void AddContended(Contest& contest, Setting setting) {
    constexpr unsigned times = 20'000;
    const char* const section = "critical section: 16 x 20000";
    contest.AddMade<Crowd<LibrarySection, times>>(setting, section, "TQThreadSynch", setting, 16u);
    contest.AddMade<Crowd<PlatformSection, times>>(setting, section, "EnterCriticalSection", setting, 16u);
    contest.AddMade<Crowd<StandardLock<std::mutex>, times>>(setting, section, "std::mutex", setting, 16u);
}

void AddReaders(Contest& contest) {
    constexpr auto all = Setting::AllCores;
    constexpr unsigned times = 100'000;
    const char* const readers = "4 readers x 100000";
    contest.AddMade<Crowd<LibraryReadLock, times>>(all, readers, "TQThreadReadSynch", all, 4u);
    contest.AddMade<Crowd<PosixReadLock, times>>(all, readers, "pthread_rwlock", all, 4u);
    contest.AddMade<Crowd<StandardReadLock, times>>(all, readers, "std::shared_mutex", all, 4u);
}

}  // namespace

void AddLocks(Contest& contest) {
    AddUncontended(contest);
    AddHandOvers(contest, Setting::OneCore);
    AddHandOvers(contest, Setting::AllCores);
    AddContended(contest, Setting::OneCore);
    AddContended(contest, Setting::AllCores);
    AddReaders(contest);
}

}  // namespace Quellan::Corvel::Bench
