// Waits on objects.
//
// A thread that has to wait queues up at each of its objects and sleeps on one word of its own. Whoever
// signals an object hands it, under the object's lock, to the first waiter whose word can be changed from
// "waiting" to the outcome; only then is the signal used up. A waiter whose time is over changes its word
// itself, and the loser of the two obeys: no signal is lost and none is taken back. One that sleeps is only
// granted the outcome under the lock; it is told and woken when no lock is held any more.
//
// A signal without waiters and a wait for something already signalled are one atomic change of the object's
// state; the kernel is entered only to sleep and to wake a sleeper.
//
// An object is guarded by one lock for all such objects for as long as it takes part in a wait for all of
// several objects, so that these waits take everything or nothing, for every observer.
//
// Objects with a name live in memory shared by processes (SharedObject); waits that involve them are in
// SharedWait.cpp.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/objects/SharedObject.h"
#include "TQLib/platform/linux/objects/Waits.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <vector>

namespace Quellan::Platform {

class Waiter;

// What being taken by a wait does to an object: one of these is all that tells the kinds apart.
struct WaitRule {
    bool takesOne = false;        // the value goes down by one
    bool takesOwnership = false;  // the value becomes the id of the waiting thread; 0 is signalled
};
inline constexpr WaitRule StaysSignalled{};
inline constexpr WaitRule TakesOne{.takesOne = true};
inline constexpr WaitRule TakesOwnership{.takesOwnership = true};

// A thread's place in the queue of one object. Guarded by the object's lock.
struct WaitBlock {
    WaitBlock* previous = nullptr;
    WaitBlock* next = nullptr;
    Waiter* waiter = nullptr;  // null: a ReadyBlock
    std::uint32_t index = 0;   // of the object in the thread's wait
    bool kept = false;         // a KeptBlock
    std::atomic<bool> queued = false;
};

// A place in a queue that stays from one wait of a thread to its next, which mostly is for the same objects.
// The thread does not keep the object alive; it knows by the handle, and by the tag of the line, whether it
// still is the same.
//
// Whoever signals the object takes the block out, whether the thread is in that wait or not; if it is not, the
// signal stays. He clears `queued` last, while he holds the object; and the thread, whose wait has begun by
// then, believes `queued` only where nobody holds the object.
struct KeptBlock : WaitBlock {
    KnownHandle handle;
    SignalWay way;
};

class WakeList;
struct ReadyBlock;

// Where objects go that are watched without a thread that sleeps on them.
class ReadyList {
  public:
    // The object of the block was taken for it; the object is held.
    virtual void Push(ReadyBlock& block, WakeList& wakes) noexcept = 0;

  protected:
    ~ReadyList() = default;
};

// A place in the queue of one object that belongs to no thread. Once it has left the queue its links are the
// list's.
struct ReadyBlock : WaitBlock {
    ReadyList* list = nullptr;
    void* watch = nullptr;  // the list's own
    bool isReady = false;   // the list's own
};

// Guards all objects that take part in a wait for all.
inline constinit ShortLock JoinedLock;

// Threads that were granted the end of their waits. They are told once no lock is held any more, at the end
// of its scope; until then they don't leave.
class WakeList {
  public:
    WakeList() = default;
    WakeList(const WakeList&) = delete;
    WakeList& operator=(const WakeList&) = delete;
    ~WakeList() {
        if (m_first) TellAll();
    }

    void Add(Waiter& waiter) noexcept;

  private:
    void TellAll() noexcept;

    Waiter* m_first = nullptr;
    Waiter* m_last = nullptr;
};

// Guards what a line stands for, for its scope.
class LineHold {
  public:
    explicit LineHold(SignalLine& line) noexcept;
    LineHold(const LineHold&) = delete;
    LineHold& operator=(const LineHold&) = delete;
    ~LineHold();

  private:
    const WithoutFork m_withoutFork;
    SignalLine& m_line;
};

// The base of all objects that can be waited on. For several threads.
class Waitable : public Object, public std::enable_shared_from_this<Waitable> {
  public:
    ~Waitable() override;

    // Null for an object of this process alone.
    SharedObject* Shared() const noexcept { return m_shared.get(); }
    const WaitRule& Rule() const noexcept { return m_rule; }
    SignalWay WayFor(DWORD access) const noexcept override;

    // Sets the value to one: for events, and for the end of a thread. This, and what gives a code below, may
    // fail for an object that processes share, as SharedObject says.
    DWORD Signal() noexcept;
    // The same for a caller that holds other objects.
    void Signal(WakeList& wakes) noexcept;
    DWORD Reset() noexcept;
    // For semaphores. 298 (ERROR_TOO_MANY_POSTS), with nothing changed, where the value would go over
    // `maximum`.
    DWORD Add(std::uint32_t count, std::uint32_t maximum, LONG* previous) noexcept;
    // For mutexes: gives back one acquisition of the calling thread. 288 (ERROR_NOT_OWNER).
    DWORD Release() noexcept;
    // For mutexes: the calling thread ends as the owner.
    void Abandon() noexcept;
    // For mutexes of the calling thread after a fork: false where it is the parent's alone.
    bool BelongsInFork(DWORD owner) noexcept;
    // For mutexes nobody else knows yet: makes the calling thread the owner.
    void Own(Waiter& waiter) noexcept;

    // Takes the object if it is signalled: nothing, or 0, WAIT_ABANDONED_0 or WaitRefused. `waiter` is the
    // calling thread; only for what takes ownership, and with room for it.
    std::optional<DWORD> TryTake(Waiter* waiter) noexcept;
    // Puts the block into the queue, or hands the object over at once. Not for what takes ownership, nor for
    // shared objects; the block is in no queue and no list.
    void BeginWatch(ReadyBlock& block) noexcept;
    // From its return on nobody hands the object over to the block.
    void EndWatch(ReadyBlock& block) noexcept;
    // Whether a TryTake is worth while. Sees everything that happened before.
    bool LooksSignalled() const noexcept;

  protected:
    // Both may throw std::bad_alloc.
    Waitable(const ObjectKind& kind, const WaitRule& rule, std::uint32_t value);
    Waitable(const ObjectKind& kind, const WaitRule& rule, std::unique_ptr<SharedObject>&& shared);

  private:
    friend class LineHold;
    friend class Waiter;
    struct Hold;

    // The lower half of the state holds flags and the line's tag, the upper half the value. Of a shared mutex
    // only the value is used: its owner, when that is a thread of this process.
    static constexpr std::uint64_t Held = 1;       // by a LineHold
    static constexpr std::uint64_t Queued = 2;     // somebody waits, or has a place
    static constexpr std::uint64_t Joined = 4;     // guarded by JoinedLock instead of Held
    static constexpr std::uint64_t Abandoned = 8;  // a mutex without owner, and the last one ended
    static constexpr std::uint64_t Flags = SignalFlags;

    static constexpr std::uint64_t WithValue(std::uint64_t state, std::uint32_t value) noexcept {
        return (state & (Flags | SignalTag)) | std::uint64_t{value} << 32;
    }

    bool IsSignalledFor(DWORD thread) const noexcept;
    bool IsOwnedBy(DWORD thread) const noexcept;
    std::uint32_t Value() const noexcept { return SignalValue(m_state.load(std::memory_order_relaxed)); }
    void SetValue(std::uint32_t value) noexcept;
    void SetUnheldValue(std::uint32_t value) noexcept;
    // The outcome's part that tells of an owner that ended.
    DWORD AbandonedFlag() const noexcept;
    std::optional<DWORD> TakeAtOnce(Waiter* waiter) noexcept;
    DWORD TakeFor(DWORD thread) noexcept;
    // For each wait for all.
    void Join() noexcept TQ_REQUIRES(JoinedLock);
    void Part() noexcept TQ_REQUIRES(JoinedLock);
    // The line is held, or joined under JoinedLock. Threads of the parent may stand in the queue, and what is
    // handed to them is lost.
    static void ForgetParents(SignalLine& line) noexcept;
    static void Enqueue(SignalLine& line, WaitBlock& block) noexcept;
    static void Unlink(SignalLine& line, WaitBlock& block) noexcept;
    void Enqueue(WaitBlock& block) noexcept { Enqueue(*m_line, block); }
    void EnqueueFirst(WaitBlock& block) noexcept;
    void Dequeue(WaitBlock& block) noexcept;
    void Dispatch(WakeList& wakes) noexcept;
    void HandOver(ReadyBlock& block, WakeList& wakes) noexcept;
    DWORD Free(bool abandoned) noexcept;

    const WaitRule& m_rule;
    const SignalLineOwner m_line;
    SignalWord& m_state;
    std::uint32_t m_depth = 0;  // of the owner's acquisitions; touched by the owner, or on its behalf
    std::uint32_t m_joins TQ_GUARDED_BY(JoinedLock) = 0;  // waits for all it takes part in
    const std::unique_ptr<SharedObject> m_shared;
};

struct Waitable::Hold : LineHold {
    explicit Hold(Waitable& object) noexcept : LineHold(*object.m_line) {}
};

inline LineHold::LineHold(SignalLine& line) noexcept TQ_NOT_ANALYSED : m_line(line) {
    SignalWord& word = line.word;
    HeldObject();
    for (Backoff backoff;; backoff.Pause()) {
        std::uint64_t state = word.load(std::memory_order_relaxed);
        if (state & Waitable::Joined) {
            JoinedLock.lock();
            if (word.load(std::memory_order_relaxed) & Waitable::Joined) break;
            JoinedLock.unlock();  // the last wait for all has just left
            continue;
        }
        if (!(state & Waitable::Held) &&
            word.compare_exchange_weak(state, state | Waitable::Held, std::memory_order_acquire,
                                       std::memory_order_relaxed))
            break;
    }
    Waitable::ForgetParents(line);
}

inline LineHold::~LineHold() TQ_NOT_ANALYSED {
    LeftObject();
    const std::uint64_t state = m_line.word.load(std::memory_order_relaxed);
    if (state & Waitable::Joined)
        JoinedLock.unlock();
    else
        m_line.word.store(state & ~Waitable::Held, std::memory_order_release);
}

// A thread as the engine sees it: what it waits for and the mutexes it owns.
class Waiter {
  public:
    Waiter() = default;
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;

    void SetThread(DWORD id) noexcept { m_thread = id; }

    // Waits for one of the objects, or for all of them, none of which comes twice. The status is what the
    // platform's waits return.
    DWORD WaitForAny(std::span<Waitable* const> objects, Deadline deadline) noexcept;
    // The same for objects that may be waited for without being used, and in which the thread's places stay.
    // Nothing where one of the handles is of another kind or invalid, or there is no memory for the places.
    std::optional<DWORD> WaitForAnyKept(std::span<const HANDLE> handles, DWORD ms) noexcept;
    // Whether the thread has places for just these.
    bool Keeps(std::span<const HANDLE> handles) const noexcept {
        return handles.size() == m_keptCount &&
               std::equal(handles.begin(), handles.end(), m_kept->handles.begin());
    }
    DWORD WaitForAll(std::span<Waitable* const> objects, DWORD ms) noexcept;
    DWORD WaitForAnyShared(std::span<Waitable* const> objects, DWORD ms) noexcept;
    DWORD WaitForAllShared(std::span<Waitable* const> objects, DWORD ms) noexcept;

    // The parts of a wait, for a completion port, which ends waits under a lock of its own. `Sleep` is true
    // once the wait was ended; when the time is over, that lock tells whether it was nevertheless.
    void BeginWait() noexcept { m_word.store(Waiting, std::memory_order_relaxed); }
    void EndWait(DWORD outcome, WakeList& wakes) noexcept;
    DWORD Outcome() const noexcept;
    bool Sleep(Deadline deadline) noexcept;

    // So that owning `count` more mutexes needs no memory; false when there is none.
    bool MakeRoom(std::size_t count) noexcept;
    void AddOwned(Waitable& mutex) noexcept;
    void RemoveOwned(const Waitable& mutex) noexcept;
    // At the end of the thread, on the thread itself: its mutexes are abandoned, and it stands in no queue.
    void End() noexcept;
    // In the child of a fork, where the thread has another id: it still owns the mutexes of the process, and
    // none that it shares with the parent.
    void BecomeInFork(DWORD id) noexcept;

  private:
    friend class Waitable;
    friend class WakeList;

    enum class Mode {
        One,   // an object is handed over to the waiter
        All,   // all of its objects are handed over together
        Look,  // the waiter is told to look for itself
    };

    // Values of the word; those below are outcomes of a wait. With Granted a sleeper will be told of the
    // rest, and must not leave before. Only a wait in which places stay is ended through one of them.
    enum : std::uint32_t {
        Outcomes = 0x100,
        Waiting,
        Sleeping,
        KeptWaiting,
        KeptSleeping,
        Choosing,
        LookAgain,
        TimedOut
    };
    static constexpr std::uint32_t Granted = 0x200;

    enum class Claim { Done, Refused, Busy };

    // An owned mutex does not live by being owned. What the kernel knows of one that processes share does.
    struct Owned {
        void Untie() const noexcept;

        Waitable* mutex;
        std::weak_ptr<Waitable> alive;
        SharedObject::Mapping memory;
    };

    struct SharedSleep;

    // Made when the thread first needs them.
    struct Kept {
        std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles;
        std::array<KeptBlock, MAXIMUM_WAIT_OBJECTS> blocks;
    };

    void Offer(Waitable& object, WaitBlock& block, WakeList& wakes) noexcept;
    Claim TryClaim(DWORD outcome, WakeList& wakes) noexcept;
    void OfferKept(Waitable& object, WaitBlock& block, WakeList& wakes) noexcept;
    bool TryClaimKept(DWORD outcome, WakeList& wakes) noexcept;
    bool Keep(std::span<const HANDLE> handles) noexcept;
    void DropKept() noexcept;
    enum class Place { Stands, Ended, Gone };
    Place TakePlace(std::size_t index) noexcept;
    void Poke(WakeList& wakes) noexcept;
    bool ClaimForSelf(Waitable& object, std::size_t index) noexcept;
    bool HasEnded() const noexcept { return m_word.load(std::memory_order_acquire) < Outcomes; }
    Waiter* Tell() noexcept;
    void NoteSender() noexcept;
    bool Spin() noexcept;
    void Prepare(Mode mode, std::span<Waitable* const> objects) noexcept;
    void Adopt(Waitable& object) noexcept;
    bool ChooseShared(std::span<Waitable* const> objects) noexcept;
    DWORD TryTakeAllShared(std::span<Waitable* const> objects, std::span<Waitable* const> shared) noexcept;

    Word m_word{0};
    Mode m_mode = Mode::One;
    std::span<Waitable* const> m_objects;
    Word* m_door = nullptr;              // the shared word on which the thread sleeps beside its own, or null
    Waiter* m_nextGranted = nullptr;     // in a WakeList
    std::atomic<int> m_senderCore = -1;  // where the last hand-over came from, before the word tells of it
    bool m_isHandedAcross = false;       // whether that was another core than the receiver's
    unsigned m_spinFailures = 0;
    unsigned m_waitsWithoutSpin = 0;
    DWORD m_thread = 0;
    std::vector<Owned> m_owned;
    std::array<WaitBlock, MAXIMUM_WAIT_OBJECTS> m_blocks;
    std::size_t m_keptCount = 0;
    std::unique_ptr<Kept> m_kept;
};

// The calling thread's; null when there is no memory for it.
Waiter* CurrentWaiter() noexcept;

// What the platform's waits do once their handles are resolved. 0 with a status, 8 (ERROR_NOT_ENOUGH_MEMORY),
// or why an object that processes share cannot be looked at.
DWORD Wait(std::span<Waitable* const> objects, bool all, DWORD ms, DWORD& status) noexcept;

}  // namespace Quellan::Platform
