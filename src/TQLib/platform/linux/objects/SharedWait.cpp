// Waits in which objects shared by processes take part. They sleep on the objects' words as well as on the
// thread's own, and take shared objects themselves; objects of this process are handed over as always.
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/NamedObjects.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

// A killed process may have changed an object without waking anybody, or have owned a mutex.
constexpr Deadline LookAfresh = 1'000 * NanosecondsInMs;
constexpr Deadline LookForOwners = 50 * NanosecondsInMs;

#if defined(SYS_futex_waitv)
constexpr long WaitOnSeveral = SYS_futex_waitv;
#else
constexpr long WaitOnSeveral = 449;
#endif

struct SleepWord {
    std::uint64_t value;
    std::uint64_t address;
    std::uint32_t flags;
    std::uint32_t reserved;
};
constexpr std::uint32_t Word32Bits = 2;

long FutexWaitSeveral(const SleepWord* words, std::size_t count, Deadline deadline) noexcept {
    const timespec until = TimeOf(deadline);
    return syscall(WaitOnSeveral, words, count, 0, &until, CLOCK_MONOTONIC);
}

// The call is younger than the rest of what the layer needs, and forbidden in some containers.
bool CanWaitOnSeveral() noexcept {
    static const bool can = [] {
        FutexWaitSeveral(nullptr, 0, 0);
        return errno == EINVAL;  // as for any wait on nothing
    }();
    return can && FaultDue("futex_waitv") == 0;
}

}  // namespace

// The words of one wait, and its count among the waiters of each shared object.
struct Waiter::SharedSleep {
    SharedSleep(Waiter& waiter, std::span<Waitable* const> objects) noexcept : m_waiter(waiter) {
        for (const Waitable* object : objects) {
            SharedObject* shared = object->Shared();
            if (!shared) {
                m_local = true;
                continue;
            }
            m_shared[m_count++] = shared;
            m_nextLook = std::min(m_nextLook, shared->HasOwner() ? LookForOwners : LookAfresh);
            shared->AddWaiter();
        }
        if (m_count + m_local > 1 && !CanWaitOnSeveral()) {
            m_door = m_shared[0]->Folder().door;
            m_door->waiters.fetch_add(1);
            m_waiter.m_door = &m_door->sequence;
            for (const SharedObject* shared : Shared())
                if (shared->Folder().door != m_door) m_nextLook = LookForOwners;
        }
        CheckOwners();
    }
    SharedSleep(const SharedSleep&) = delete;
    SharedSleep& operator=(const SharedSleep&) = delete;
    ~SharedSleep() {
        for (SharedObject* shared : Shared())
            shared->RemoveWaiter();
        if (m_door) m_door->waiters.fetch_sub(1);
        m_waiter.m_door = nullptr;
    }

    std::span<SharedObject* const> Shared() const noexcept { return std::span(m_shared).first(m_count); }

    // Before the objects are found not signalled: what changes afterwards ends the sleep.
    void Arm() noexcept {
        std::size_t count = 0;
        for (const SharedObject* shared : Shared())
            m_words[count++] = WordFor(shared->Sequence(), shared->Sequence().load(), Reach::Shared);
        if (m_local) m_words[count++] = WordFor(m_waiter.m_word, Sleeping, Reach::Process);
        if (m_door) m_armedDoor = m_door->sequence.load();
    }

    // With the waiter's word at Sleeping. False when the time is over.
    bool Sleep(Deadline deadline) noexcept {
        const Deadline until = std::min(deadline, Now() + m_nextLook);
        const std::size_t count = m_count + m_local;
        int error;
        if (m_door) {
            error = FutexWait(m_door->sequence, m_armedDoor, until, Reach::Shared);
        } else if (count == 1) {
            error = FutexWait(m_shared[0]->Sequence(), static_cast<std::uint32_t>(m_words[0].value), until,
                              Reach::Shared);
        } else {
            error = FutexWaitSeveral(m_words.data(), count, until) < 0 ? errno : 0;
        }
        if (error != ETIMEDOUT) return true;
        if (until == deadline) return false;
        CheckOwners();
        return true;
    }

  private:
    static SleepWord WordFor(const Word& word, std::uint32_t value, Reach reach) noexcept {
        return {value, reinterpret_cast<std::uint64_t>(&word), Word32Bits | static_cast<std::uint32_t>(reach),
                0};
    }

    void CheckOwners() noexcept {
        for (SharedObject* shared : Shared())
            shared->CheckOwner();
    }

    Waiter& m_waiter;
    Door* m_door = nullptr;
    std::uint32_t m_armedDoor = 0;
    bool m_local = false;
    Deadline m_nextLook = LookAfresh;
    std::size_t m_count = 0;
    std::array<SharedObject*, MAXIMUM_WAIT_OBJECTS> m_shared;
    std::array<SleepWord, MAXIMUM_WAIT_OBJECTS + 1> m_words;
};

// With the word at Waiting: takes the first shared object that is signalled, unless the wait is ended by an
// object of this process before. Signallers of those do not wait meanwhile: they leave a mark, and this
// thread looks for itself. True when the word has become an outcome.
bool Waiter::ChooseShared(std::span<Waitable* const> objects) noexcept {
    std::uint32_t word = Waiting;
    if (!m_word.compare_exchange_strong(word, Choosing, std::memory_order_acq_rel)) return word < Outcomes;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (!objects[i]->Shared()) continue;
        if (const std::optional<DWORD> flag = objects[i]->TryTake(this)) {
            m_word.store(static_cast<DWORD>(i) | *flag, std::memory_order_release);
            return true;
        }
    }
    word = Choosing;
    if (m_word.compare_exchange_strong(word, Waiting, std::memory_order_acq_rel)) return false;
    m_word.store(Waiting, std::memory_order_release);
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (objects[i]->Shared()) continue;
        const Waitable::Hold hold(*objects[i]);
        if (objects[i]->IsSignalledFor(m_thread)) {
            ClaimForSelf(*objects[i], i);  // or it was handed something at this moment
            return true;
        }
    }
    return false;
}

DWORD Waiter::WaitForAnyShared(std::span<Waitable* const> objects, DWORD ms) noexcept {
    const Deadline deadline = DeadlineAfter(ms);
    Prepare(Mode::One, objects);
    SharedSleep sleep(*this, objects);
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (objects[i]->Shared()) continue;
        const Waitable::Hold hold(*objects[i]);
        if (objects[i]->IsSignalledFor(m_thread)) {
            ClaimForSelf(*objects[i], i);
            break;
        }
        objects[i]->Enqueue(m_blocks[i]);
    }
    for (bool inTime = true; inTime;) {
        sleep.Arm();
        if (ChooseShared(objects)) break;
        std::uint32_t word = Waiting;
        if (!m_word.compare_exchange_strong(word, Sleeping, std::memory_order_acq_rel)) break;
        inTime = ms != 0 && sleep.Sleep(deadline);
        word = Sleeping;
        const std::uint32_t next = inTime ? Waiting : TimedOut;
        if (!m_word.compare_exchange_strong(word, next, std::memory_order_acq_rel)) break;
    }
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (objects[i]->Shared()) continue;
        const Waitable::Hold hold(*objects[i]);
        objects[i]->Dequeue(m_blocks[i]);
    }
    const std::uint32_t outcome = Outcome();
    if (outcome == TimedOut) return WAIT_TIMEOUT;
    if (outcome & WaitRefused) return outcome;
    Waitable& taken = *objects[outcome % WAIT_ABANDONED_0];
    if (!taken.Shared()) Adopt(taken);
    return outcome;
}

// WAIT_TIMEOUT when not all are signalled. `shared` are those of the objects that are, in the order in which
// every process locks them; that order comes before the lock of this process's objects.
DWORD Waiter::TryTakeAllShared(std::span<Waitable* const> objects,
                               std::span<Waitable* const> shared) noexcept {
    const auto signalled = [&](const Waitable* object) {
        return object->Shared() ? object->LooksSignalled() : object->IsSignalledFor(m_thread);
    };
    for (std::size_t i = 0; i < shared.size(); ++i) {
        if (shared[i]->Shared()->Lock() == ERROR_SUCCESS) continue;
        for (Waitable* locked : shared.first(i))
            locked->Shared()->Unlock();
        return WaitRefused | static_cast<DWORD>(std::ranges::find(objects, shared[i]) - objects.begin());
    }
    DWORD outcome = 0;
    {
        const Guard lock(JoinedLock);
        if (!std::ranges::all_of(objects, signalled)) {
            outcome = WAIT_TIMEOUT;
        } else {
            for (Waitable* object : objects) {
                const bool ours = object->Rule().takesOwnership && object->Value() == m_thread;
                if (!object->Shared())
                    outcome |= object->TakeFor(m_thread);
                else if (ours)
                    ++object->m_depth;
                else
                    outcome |= object->Shared()->TryTakeLocked().value_or(0);
                if (!object->Rule().takesOwnership || ours) continue;
                if (object->Shared())
                    object->Own(*this);
                else
                    AddOwned(*object);
            }
        }
    }
    for (Waitable* object : shared)
        object->Shared()->Unlock();
    return outcome;
}

DWORD Waiter::WaitForAllShared(std::span<Waitable* const> objects, DWORD ms) noexcept {
    const Deadline deadline = DeadlineAfter(ms);
    std::array<Waitable*, MAXIMUM_WAIT_OBJECTS> sorted;
    const auto end = std::ranges::copy_if(objects, sorted.begin(), &Waitable::Shared).out;
    const std::span shared(sorted.begin(), end);
    std::ranges::sort(shared, {}, [](const Waitable* object) { return object->Shared()->File(); });
    Prepare(Mode::Look, objects);
    SharedSleep sleep(*this, objects);
    const auto eachOfOurs = [&](auto change) {
        const Guard lock(JoinedLock);
        for (std::size_t i = 0; i < objects.size(); ++i)
            if (!objects[i]->Shared()) change(*objects[i], m_blocks[i]);
    };
    eachOfOurs([](Waitable& object, WaitBlock& block) TQ_REQUIRES(JoinedLock) {
        object.Join();
        object.Enqueue(block);
    });
    DWORD outcome;
    for (bool inTime = true;;) {
        sleep.Arm();
        // Whoever has granted it another look tells it first.
        std::uint32_t word = Sleeping;
        if (!m_word.compare_exchange_strong(word, Waiting, std::memory_order_acq_rel)) {
            Outcome();
            m_word.store(Waiting, std::memory_order_relaxed);
        }
        outcome = TryTakeAllShared(objects, shared);
        if (outcome != WAIT_TIMEOUT || !inTime || ms == 0) break;
        word = Waiting;
        if (m_word.compare_exchange_strong(word, Sleeping, std::memory_order_acq_rel))
            inTime = sleep.Sleep(deadline);
    }
    eachOfOurs([](Waitable& object, WaitBlock& block) TQ_REQUIRES(JoinedLock) {
        object.Dequeue(block);
        object.Part();
    });
    return outcome;
}

}  // namespace Quellan::Platform
