// Waits in which objects shared by processes take part. They sleep on the objects' words as well as on the
// thread's own, and take shared objects themselves; objects of this process are handed over as always.
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/NamedObjects.h"

#include <algorithm>

namespace Quellan::Platform {

namespace {

// Where no word tells of the end of an owner: with a door, which the kernel does not ring; and with several
// mutexes, as a waiter who is killed when he has just been woken hands that on for one of them only.
constexpr Deadline LookForOwners = 50 * NanosecondsInMs;
constexpr Deadline LookAfresh = 1'000 * NanosecondsInMs;

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

// One word is waited for by the call that every kernel has.
int FutexWaitSeveral(std::span<const SleepWord> words, Deadline deadline) noexcept {
    if (words.size() == 1) {
        const auto reach = static_cast<Reach>(words[0].flags & FUTEX_PRIVATE_FLAG);
        return FutexWait(*reinterpret_cast<const Word*>(words[0].address),
                         static_cast<std::uint32_t>(words[0].value), deadline, reach);
    }
    const timespec until = TimeOf(deadline);
    const long result = syscall(WaitOnSeveral, words.data(), words.size(), 0,
                                deadline == Never ? nullptr : &until, CLOCK_MONOTONIC);
    return result < 0 ? errno : 0;
}

// The call is younger than the rest of what the layer needs, and forbidden in some containers.
bool CanWaitOnSeveral() noexcept {
    static const bool can = [] {
        return FutexWaitSeveral({}, Never) == EINVAL;  // as for any wait on nothing
    }();
    return can && FaultDue("futex_waitv") == 0;
}

// The first mutex of a wait that processes share.
RobustTie* FirstTie(std::span<Waitable* const> objects) noexcept {
    for (const Waitable* object : objects)
        if (SharedObject* const shared = object->Shared(); shared && shared->Tie()) return shared->Tie();
    return nullptr;
}

}  // namespace

// The words of one wait.
struct Waiter::SharedSleep {
    SharedSleep(Waiter& waiter, std::span<Waitable* const> objects) noexcept
        : m_waiter(waiter), m_pending(FirstTie(objects)) {
        std::size_t mutexes = 0;
        for (const Waitable* object : objects) {
            if (!object->Shared()) continue;
            m_shared[m_count++] = object->Shared();
            mutexes += object->Rule().takesOwnership;
        }
        m_local = m_count != objects.size();
        if (mutexes > 1) m_nextLook = LookAfresh;
        if (m_count + m_local == 1 || CanWaitOnSeveral()) return;
        m_door = m_shared[0]->Folder().door;
        m_door->waiters.fetch_add(1);
        m_waiter.m_door = &m_door->sequence;
        const bool isRungForAll = std::ranges::all_of(
            Shared(), [&](const SharedObject* shared) { return shared->Folder().door == m_door; });
        m_nextLook = isRungForAll && mutexes == 0 ? LookAfresh : LookForOwners;
    }
    SharedSleep(const SharedSleep&) = delete;
    SharedSleep& operator=(const SharedSleep&) = delete;
    ~SharedSleep() {
        for (SharedObject* shared : Shared())
            shared->Disarm();
        if (m_door) m_door->waiters.fetch_sub(1);
        m_waiter.m_door = nullptr;
    }

    std::span<SharedObject* const> Shared() const noexcept { return std::span(m_shared).first(m_count); }

    // Before the objects are looked at: what changes afterwards ends the sleep. A wait for all sleeps on what is
    // not signalled alone.
    void Arm() noexcept {
        m_armed = 0;
        for (SharedObject* shared : Shared())
            if (const std::optional<std::uint32_t> value = shared->Arm())
                m_words[m_armed++] = WordFor(shared->ValueWord(), *value, Reach::Shared);
        m_isArmed = m_armed == m_count || (m_waiter.m_mode == Mode::Look && m_armed + m_local != 0);
        if (m_local) m_words[m_armed++] = WordFor(m_waiter.m_word, Sleeping, Reach::Process);
        if (m_door) m_armedDoor = m_door->sequence.load();
    }

    // With the waiter's word at Sleeping. False when the time is over.
    bool Sleep(Deadline deadline) noexcept {
        const Deadline until = m_nextLook == Never ? deadline : std::min(deadline, Now() + m_nextLook);
        int error;
        if (m_door)
            error = FutexWait(m_door->sequence, m_armedDoor, until, Reach::Shared);
        else if (!m_isArmed)
            return true;
        else
            error = FutexWaitSeveral(std::span(m_words).first(m_armed), until);
        return error != ETIMEDOUT || until != deadline;
    }

  private:
    static SleepWord WordFor(const Word& word, std::uint32_t value, Reach reach) noexcept {
        return {value, reinterpret_cast<std::uint64_t>(&word), Word32Bits | static_cast<std::uint32_t>(reach),
                0};
    }

    Waiter& m_waiter;
    const RobustTie::Pending m_pending;
    Door* m_door = nullptr;
    std::uint32_t m_armedDoor = 0;
    bool m_local = false;
    bool m_isArmed = false;
    Deadline m_nextLook = Never;
    std::size_t m_count = 0;
    std::size_t m_armed = 0;
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
