#include "TQLib/platform/linux/objects/WaitEngine.h"

#include "TQLib/platform/RaceTools.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/objects/SharedObject.h"

#include <algorithm>
#include <climits>

namespace Quellan::Platform {

namespace {

const ForkLock<JoinedLock> g_joinedForkLock(ForkOrder::JoinedObjects);

std::size_t FirstSignalled(std::span<Waitable* const> objects) noexcept {
    std::size_t found = 0;
    while (found < objects.size() && !objects[found]->LooksSignalled())
        ++found;
    // Whoever signalled this one may have signalled an earlier one before, after that was looked at.
    for (std::size_t i = 0; found < objects.size() && i < found; ++i)
        if (objects[i]->LooksSignalled()) return i;
    return found;
}

}  // namespace

void WakeList::Add(Waiter& waiter) noexcept {
    waiter.m_nextGranted = nullptr;
    (m_last ? m_last->m_nextGranted : m_first) = &waiter;
    m_last = &waiter;
}

void WakeList::TellAll() noexcept {
    for (Waiter* waiter = m_first; waiter;)
        waiter = waiter->Tell();
}

Waitable::Waitable(const ObjectKind& kind, const WaitRule& rule, std::uint32_t value)
    : Object(kind), m_rule(rule), m_line(NewSignalLine(value)), m_state(m_line->word) {
    TellOwnMemory(this, sizeof *this);
}

Waitable::Waitable(const ObjectKind& kind, const WaitRule& rule, std::unique_ptr<SharedObject>&& shared)
    : Object(kind),
      m_rule(rule),
      m_line(NewSignalLine(0)),
      m_state(m_line->word),
      m_shared(std::move(shared)) {
    TellOwnMemory(this, sizeof *this);
}

// Those who still have a place in the queue keep it for nothing.
Waitable::~Waitable() {
    const Hold hold(*this);
    while (WaitBlock* const block = m_line->first)
        Dequeue(*block);
    const std::uint64_t state = m_state.load(std::memory_order_relaxed);
    const std::uint64_t next = (state & SignalTag) + SignalFlags + 1;
    m_state.store((next & SignalTag) | (state & Held), std::memory_order_relaxed);
}

SignalWay Waitable::WayFor(DWORD access) const noexcept {
    if (m_shared || m_rule.takesOwnership) return {};
    const std::uint64_t tag = m_state.load(std::memory_order_relaxed) & SignalTag;
    SignalWay way{m_line.get(), static_cast<std::uint32_t>(tag)};
    if (access & SYNCHRONIZE) way.tagAndUses |= SignalWay::Wait;
    if (m_rule.takesOne) way.tagAndUses |= SignalWay::TakeOne;
    return way;
}

DWORD Waitable::Signal() noexcept {
    TellReleased(&m_state);
    if (m_shared) return m_shared->Signal();
    std::uint64_t state = m_state.load(std::memory_order_relaxed);
    while (!(state & Flags))
        if (m_state.compare_exchange_weak(state, WithValue(state, 1), std::memory_order_acq_rel,
                                          std::memory_order_relaxed))
            return ERROR_SUCCESS;
    WakeList wakes;
    Signal(wakes);
    return ERROR_SUCCESS;
}

void Waitable::Signal(WakeList& wakes) noexcept {
    TellReleased(&m_state);
    const Hold hold(*this);
    SetValue(1);
    Dispatch(wakes);
}

DWORD Waitable::Reset() noexcept {
    if (m_shared) return m_shared->Reset();
    std::uint64_t state = m_state.load(std::memory_order_relaxed);
    while (!(state & Flags))
        if (m_state.compare_exchange_weak(state, WithValue(state, 0), std::memory_order_acq_rel,
                                          std::memory_order_relaxed))
            return ERROR_SUCCESS;
    const Hold hold(*this);
    SetValue(0);
    return ERROR_SUCCESS;
}

DWORD Waitable::Add(std::uint32_t count, std::uint32_t maximum, LONG* previous) noexcept {
    TellReleased(&m_state);
    std::uint32_t value;
    if (m_shared) {
        if (DWORD code = m_shared->Add(count, value)) return code;
    } else {
        WakeList wakes;
        const Hold hold(*this);
        value = Value();
        if (count > maximum - value) return ERROR_TOO_MANY_POSTS;
        SetValue(value + count);
        Dispatch(wakes);
    }
    if (previous) *previous = static_cast<LONG>(value);
    return ERROR_SUCCESS;
}

DWORD Waitable::Release() noexcept {
    const DWORD thread = GetCurrentThreadId();
    if (!IsOwnedBy(thread)) return ERROR_NOT_OWNER;
    if (--m_depth != 0) return ERROR_SUCCESS;
    Waiter& waiter = *CurrentWaiter();
    waiter.RemoveOwned(*this);
    const DWORD code = Free(false);
    if (code) Own(waiter);
    return code;
}

void Waitable::Abandon() noexcept {
    m_depth = 0;
    Free(true);
}

DWORD Waitable::Free(bool abandoned) noexcept {
    TellReleased(&m_state);
    if (m_shared) {
        SetUnheldValue(0);
        return m_shared->Free(abandoned);
    }
    std::uint64_t state = m_state.load(std::memory_order_relaxed);
    while (!(state & Flags) && !abandoned)
        if (m_state.compare_exchange_weak(state, WithValue(state, 0), std::memory_order_release,
                                          std::memory_order_relaxed))
            return ERROR_SUCCESS;
    WakeList wakes;
    const Hold hold(*this);
    if (abandoned) m_state.fetch_or(Abandoned, std::memory_order_relaxed);
    SetValue(0);
    Dispatch(wakes);
    return ERROR_SUCCESS;
}

bool Waitable::BelongsInFork(DWORD owner) noexcept {
    if (m_shared) {
        m_depth = 0;
        SetUnheldValue(0);
        return false;
    }
    m_state.store(WithValue(m_state.load(std::memory_order_relaxed), owner), std::memory_order_relaxed);
    return true;
}

void Waitable::Own(Waiter& waiter) noexcept {
    SetUnheldValue(GetCurrentThreadId());
    m_depth = 1;
    waiter.AddOwned(*this);
}

// While the object is held its owner may be about to change to another thread, or to this one.
bool Waitable::IsOwnedBy(DWORD thread) const noexcept {
    const std::uint64_t state = m_state.load(std::memory_order_acquire);
    if (!(state & (Held | Joined))) return SignalValue(state) == thread;
    const Hold hold(const_cast<Waitable&>(*this));
    return Value() == thread;
}

bool Waitable::LooksSignalled() const noexcept {
    const std::uint32_t value = SignalValue(m_state.load(std::memory_order_acquire));
    if (m_rule.takesOwnership && value == GetCurrentThreadId()) return true;
    if (m_shared) return m_shared->LooksSignalled();
    return (value == 0) == m_rule.takesOwnership;
}

bool Waitable::IsSignalledFor(DWORD thread) const noexcept {
    const std::uint32_t value = Value();
    return m_rule.takesOwnership ? value == 0 || value == thread : value != 0;
}

std::optional<DWORD> Waitable::TryTake(Waiter* waiter) noexcept {
    const std::optional<DWORD> taken = TakeAtOnce(waiter);
    if (taken) TellAcquired(&m_state);
    return taken;
}

std::optional<DWORD> Waitable::TakeAtOnce(Waiter* waiter) noexcept {
    if (m_rule.takesOwnership && IsOwnedBy(waiter->m_thread)) {
        ++m_depth;
        return 0;
    }
    if (m_shared) {
        const std::optional<DWORD> taken = m_shared->TryTake();
        if (taken && taken != WaitRefused && m_rule.takesOwnership) Own(*waiter);
        return taken;
    }
    const DWORD thread = waiter ? waiter->m_thread : 0;
    std::uint64_t state = m_state.load(std::memory_order_acquire);
    while (!(state & Flags)) {
        const std::uint32_t value = SignalValue(state);
        if (m_rule.takesOwnership ? value != 0 : value == 0) return std::nullopt;
        if (!m_rule.takesOne && !m_rule.takesOwnership) return 0;
        const std::uint32_t left = m_rule.takesOne ? value - 1 : thread;
        if (!m_state.compare_exchange_weak(state, WithValue(state, left), std::memory_order_acquire))
            continue;
        if (m_rule.takesOwnership) {
            m_depth = 1;
            waiter->AddOwned(*this);
        }
        return 0;
    }
    const Hold hold(*this);
    if (!IsSignalledFor(thread)) return std::nullopt;
    const DWORD flag = TakeFor(thread);
    if (m_rule.takesOwnership) waiter->AddOwned(*this);
    return flag;
}

void Waitable::SetValue(std::uint32_t value) noexcept {
    m_state.store(WithValue(m_state.load(std::memory_order_relaxed), value), std::memory_order_release);
}

// For a value that has one writer. One who was too late for the last use of the line may hold it.
void Waitable::SetUnheldValue(std::uint32_t value) noexcept {
    std::uint64_t state = m_state.load(std::memory_order_relaxed);
    for (Backoff backoff;; backoff.Pause()) {
        state &= ~Held;
        if (m_state.compare_exchange_weak(state, WithValue(state, value), std::memory_order_release,
                                          std::memory_order_relaxed))
            return;
    }
}

DWORD Waitable::AbandonedFlag() const noexcept {
    return m_state.load(std::memory_order_relaxed) & Abandoned ? WAIT_ABANDONED_0 : 0;
}

DWORD Waitable::TakeFor(DWORD thread) noexcept {
    const std::uint64_t state = m_state.load(std::memory_order_relaxed);
    if (m_rule.takesOne) SetValue(SignalValue(state) - 1);
    if (!m_rule.takesOwnership) return 0;
    const DWORD flag = AbandonedFlag();
    m_depth = SignalValue(state) == thread ? m_depth + 1 : 1;
    m_state.store(WithValue(state & ~Abandoned, thread), std::memory_order_release);
    return flag;
}

void Waitable::Join() noexcept {
    if (m_joins++ == 0) {
        std::uint64_t state = m_state.load(std::memory_order_relaxed) & ~Held;
        for (Backoff backoff;
             !m_state.compare_exchange_weak(state, state | Joined, std::memory_order_acq_rel);
             backoff.Pause())
            state &= ~Held;
    }
    ForgetParents(*m_line);
}

void Waitable::Part() noexcept {
    if (--m_joins == 0) m_state.fetch_and(~Joined, std::memory_order_release);
}

void Waitable::ForgetParents(SignalLine& line) noexcept {
    if (line.generation == ForkGeneration()) return;
    line.generation = ForkGeneration();
    for (WaitBlock *block = line.first, *next; block; block = next) {
        next = block->next;
        if (!block->waiter) continue;
        Unlink(line, *block);
        block->queued = false;
    }
}

void Waitable::Enqueue(SignalLine& line, WaitBlock& block) noexcept {
    block.queued.store(true, std::memory_order_relaxed);
    block.next = nullptr;
    block.previous = line.last;
    (line.last ? line.last->next : line.first) = &block;
    line.last = &block;
    line.word.store(line.word.load(std::memory_order_relaxed) | Queued, std::memory_order_relaxed);
}

void Waitable::EnqueueFirst(WaitBlock& block) noexcept {
    SignalLine& line = *m_line;
    block.queued.store(true, std::memory_order_relaxed);
    block.previous = nullptr;
    block.next = line.first;
    (line.first ? line.first->previous : line.last) = &block;
    line.first = &block;
    m_state.store(m_state.load(std::memory_order_relaxed) | Queued, std::memory_order_relaxed);
}

void Waitable::Unlink(SignalLine& line, WaitBlock& block) noexcept {
    (block.previous ? block.previous->next : line.first) = block.next;
    (block.next ? block.next->previous : line.last) = block.previous;
    if (!line.first)
        line.word.store(line.word.load(std::memory_order_relaxed) & ~Queued, std::memory_order_relaxed);
}

void Waitable::Dequeue(WaitBlock& block) noexcept {
    if (!block.queued.load(std::memory_order_relaxed)) return;
    Unlink(*m_line, block);
    block.queued.store(false, std::memory_order_release);
}

// Hands the object on, first come, first served, for as long as it stays signalled.
void Waitable::Dispatch(WakeList& wakes) noexcept {
    WaitBlock* next;
    for (WaitBlock* block = m_line->first;
         block && IsSignalledFor(block->waiter ? block->waiter->m_thread : 0); block = next) {
        next = block->next;
        if (block->waiter) {
            block->waiter->Offer(*this, *block, wakes);
        } else {
            Dequeue(*block);
            HandOver(static_cast<ReadyBlock&>(*block), wakes);
        }
    }
}

void Waitable::HandOver(ReadyBlock& block, WakeList& wakes) noexcept {
    TakeFor(0);
    TellAcquired(&m_state);
    block.list->Push(block, wakes);
}

void Waitable::BeginWatch(ReadyBlock& block) noexcept {
    WakeList wakes;
    const Hold hold(*this);
    if (IsSignalledFor(0))
        HandOver(block, wakes);
    else
        Enqueue(block);
}

void Waitable::EndWatch(ReadyBlock& block) noexcept {
    const Hold hold(*this);
    Dequeue(block);
}

// The object is held. Once the word is an outcome the waiter may be gone: nothing of it is touched then.
void Waiter::Offer(Waitable& object, WaitBlock& block, WakeList& wakes) noexcept {
    if (block.kept) return OfferKept(object, block, wakes);
    if (m_mode == Mode::Look) return Poke(wakes);
    if (m_mode == Mode::One) {
        const DWORD thread = m_thread;
        object.Dequeue(block);
        const Claim claim = TryClaim(block.index | object.AbandonedFlag(), wakes);
        if (claim == Claim::Done) object.TakeFor(thread);
        if (claim == Claim::Busy) object.EnqueueFirst(block);
        return;
    }
    for (Waitable* each : m_objects)
        if (!each->IsSignalledFor(m_thread)) return;
    DWORD flags = 0;
    for (std::size_t i = 0; i < m_objects.size(); ++i) {
        flags |= m_objects[i]->TakeFor(m_thread);
        m_objects[i]->Dequeue(m_blocks[i]);
    }
    EndWait(flags, wakes);
}

Waiter::Claim Waiter::TryClaim(DWORD outcome, WakeList& wakes) noexcept {
    std::uint32_t word = m_word.load(std::memory_order_relaxed);
    for (;;) {
        const bool choosing = word == Choosing;
        if (word != Waiting && word != Sleeping && !choosing)
            return word == LookAgain ? Claim::Busy : Claim::Refused;
        m_senderCore.store(sched_getcpu(), std::memory_order_relaxed);
        const std::uint32_t next = choosing ? LookAgain : word == Sleeping ? outcome | Granted : outcome;
        if (!m_word.compare_exchange_weak(word, next, std::memory_order_acq_rel, std::memory_order_relaxed))
            continue;
        if (word == Sleeping) wakes.Add(*this);
        return choosing ? Claim::Busy : Claim::Done;
    }
}

void Waiter::OfferKept(Waitable& object, WaitBlock& block, WakeList& wakes) noexcept {
    Waitable::Unlink(*object.m_line, block);
    if (TryClaimKept(block.index, wakes)) object.TakeFor(0);
    static_cast<void>(FaultDue("OfferKept"));
    block.queued.store(false, std::memory_order_release);
}

// What changes nothing is a change too: a thread that begins its wait after it sees that the object is held.
bool Waiter::TryClaimKept(DWORD outcome, WakeList& wakes) noexcept {
    m_senderCore.store(sched_getcpu(), std::memory_order_relaxed);
    for (std::uint32_t word = KeptSleeping;;) {
        const std::uint32_t next = word == KeptSleeping ? outcome | Granted : outcome;
        if (m_word.compare_exchange_strong(word, next, std::memory_order_acq_rel)) {
            if (next & Granted) wakes.Add(*this);
            return true;
        }
        if (word != KeptWaiting) word = m_word.fetch_or(0, std::memory_order_acq_rel);
        if (word != KeptWaiting && word != KeptSleeping) return false;
    }
}

void Waiter::Poke(WakeList& wakes) noexcept {
    std::uint32_t word = m_word.load(std::memory_order_relaxed);
    while (word == Waiting || word == Sleeping) {
        const std::uint32_t next = word == Sleeping ? LookAgain | Granted : LookAgain;
        if (!m_word.compare_exchange_weak(word, next, std::memory_order_acq_rel)) continue;
        if (word == Sleeping) wakes.Add(*this);
        return;
    }
}

// The waiter may be gone as soon as its word has changed. Returns the one granted after it.
Waiter* Waiter::Tell() noexcept {
    BeforeWake();
    Waiter* const next = m_nextGranted;
    Word* const door = m_door;
    m_word.fetch_and(~Granted, std::memory_order_acq_rel);
    if (door) {
        door->fetch_add(1);
        FutexWake(door, INT_MAX, Reach::Shared);
    }
    FutexWake(&m_word, 1, Reach::Process);
    return next;
}

// The object is held and signalled. False when the wait was ended by another object meanwhile.
bool Waiter::ClaimForSelf(Waitable& object, std::size_t index) noexcept {
    std::uint32_t word = Waiting;
    const auto outcome = static_cast<DWORD>(index) | object.AbandonedFlag();
    if (!m_word.compare_exchange_strong(word, outcome, std::memory_order_acq_rel)) return false;
    object.TakeFor(m_thread);
    return true;
}

void Waiter::Prepare(Mode mode, std::span<Waitable* const> objects) noexcept {
    m_mode = mode;
    m_objects = objects;
    m_word.store(Waiting, std::memory_order_relaxed);
    for (std::size_t i = 0; i < objects.size(); ++i) {
        m_blocks[i].waiter = this;
        m_blocks[i].index = static_cast<std::uint32_t>(i);
    }
}

// Enters the list of owned mutexes what a wait has just been handed.
void Waiter::Adopt(Waitable& object) noexcept {
    TellAcquired(&object.m_state);
    if (object.Rule().takesOwnership) AddOwned(object);
}

DWORD Waiter::WaitForAny(std::span<Waitable* const> objects, Deadline deadline) noexcept {
    Prepare(Mode::One, objects);
    std::size_t queued = 0;
    for (; queued < objects.size(); ++queued) {
        if (m_word.load(std::memory_order_relaxed) < Outcomes) break;
        Waitable& object = *objects[queued];
        const Waitable::Hold hold(object);
        if (object.IsSignalledFor(m_thread)) {
            ClaimForSelf(object, queued);
            break;
        }
        object.Enqueue(m_blocks[queued]);
    }
    std::uint32_t word = Sleeping;
    if (!Sleep(deadline)) m_word.compare_exchange_strong(word, TimedOut, std::memory_order_acq_rel);
    const std::uint32_t outcome = Outcome();
    const std::size_t taken = outcome == TimedOut ? objects.size() : outcome % WAIT_ABANDONED_0;
    for (std::size_t i = 0; i < queued; ++i) {
        if (i == taken) continue;  // taken from its queue by whoever handed it over
        const Waitable::Hold hold(*objects[i]);
        objects[i]->Dequeue(m_blocks[i]);
    }
    if (outcome == TimedOut) return WAIT_TIMEOUT;
    Adopt(*objects[taken]);
    return outcome;
}

bool Waiter::Keep(std::span<const HANDLE> handles) noexcept {
    DropKept();
    if (!m_kept) {
        m_kept.reset(new (std::nothrow) Kept);
        if (!m_kept) return false;
        TellOwnMemory(m_kept.get(), sizeof(Kept));
    }
    for (std::size_t i = 0; i < handles.size(); ++i) {
        KeptBlock& block = m_kept->blocks[i];
        block.way = FindWay(handles[i]);
        if (!block.way.May(SignalWay::Wait)) return false;
        block.handle = KnownHandle(handles[i]);
        block.waiter = this;
        block.index = static_cast<std::uint32_t>(i);
        block.kept = true;
        m_kept->handles[i] = handles[i];
    }
    m_keptCount = handles.size();
    return true;
}

void Waiter::DropKept() noexcept {
    for (std::size_t i = std::exchange(m_keptCount, 0); i-- > 0;) {
        KeptBlock& block = m_kept->blocks[i];
        if (!block.queued.load(std::memory_order_acquire)) continue;
        const LineHold hold(*block.way.line);
        if (!block.queued.load(std::memory_order_relaxed)) continue;
        Waitable::Unlink(*block.way.line, block);
        block.queued.store(false, std::memory_order_relaxed);
    }
}

// In a wait that has begun: takes the thread's place in the queue of an object that is not signalled, unless it
// still has it. Ended: by this object or another one.
Waiter::Place Waiter::TakePlace(std::size_t index) noexcept {
    KeptBlock& block = m_kept->blocks[index];
    SignalLine& line = *block.way.line;
    const LineHold hold(line);
    const std::uint64_t state = line.word.load(std::memory_order_relaxed);
    if (!block.way.IsCurrent(state)) return Place::Gone;
    if (SignalValue(state) == 0) {
        if (!block.queued.load(std::memory_order_relaxed)) Waitable::Enqueue(line, block);
        return Place::Stands;
    }
    std::uint32_t word = KeptWaiting;
    if (m_word.compare_exchange_strong(word, static_cast<std::uint32_t>(index), std::memory_order_acq_rel) &&
        block.way.May(SignalWay::TakeOne))
        line.word.store(state - (std::uint64_t{1} << 32), std::memory_order_release);
    return Place::Ended;
}

// From the exchange on, whoever signals one of the objects finds the thread waiting, or it finds the object
// signalled or held.
std::optional<DWORD> Waiter::WaitForAnyKept(std::span<const HANDLE> handles, DWORD ms) noexcept {
    if (!Keeps(handles) && !Keep(handles)) return std::nullopt;
    const Deadline deadline = DeadlineAfter(ms);
    m_word.exchange(KeptWaiting, std::memory_order_seq_cst);
    const std::span blocks = std::span(m_kept->blocks).first(m_keptCount);
    const auto valueOf = [&](std::size_t i) {
        return SignalValue(blocks[i].way.line->word.load(std::memory_order_seq_cst));
    };
    Place place = Place::Stands;
    for (std::size_t i = 0; i < blocks.size() && place == Place::Stands; ++i) {
        const KeptBlock& block = blocks[i];
        if (!block.handle.IsOpen(handles[i])) {
            place = Place::Gone;
            break;
        }
        const std::uint64_t state = block.way.line->word.load(std::memory_order_seq_cst);
        if (!(state & (Waitable::Held | Waitable::Joined)) && SignalValue(state) == 0 &&
            block.queued.load(std::memory_order_acquire))
            continue;
        // Whoever signalled this one may have signalled an earlier one before, after that was looked at.
        std::size_t first = 0;
        while (first < i && (SignalValue(state) == 0 || valueOf(first) == 0))
            ++first;
        place = TakePlace(first);
        if (first != i && place == Place::Stands) --i;  // it was taken by somebody else
    }
    std::uint32_t word = KeptWaiting;
    if (place == Place::Gone) {
        const bool isEnded = !m_word.compare_exchange_strong(word, TimedOut, std::memory_order_acq_rel);
        DropKept();
        if (!isEnded) return std::nullopt;
    } else if (place == Place::Stands && !Sleep(deadline)) {
        word = KeptSleeping;
        m_word.compare_exchange_strong(word, TimedOut, std::memory_order_acq_rel);
    }
    const std::uint32_t outcome = Outcome();
    if (outcome == TimedOut) return WAIT_TIMEOUT;
    TellAcquired(&blocks[outcome].way.line->word);
    return outcome;
}

DWORD Waiter::WaitForAll(std::span<Waitable* const> objects, DWORD ms) noexcept {
    const auto signalled = [&](Waitable* object) { return object->IsSignalledFor(m_thread); };
    std::uint64_t ours = 0;  // mutexes that were owned before, a bit each
    bool waits = false;
    {
        const Guard lock(JoinedLock);
        for (std::size_t i = 0; i < objects.size(); ++i) {
            objects[i]->Join();
            if (objects[i]->Value() == m_thread) ours |= std::uint64_t{1} << i;
        }
        Prepare(Mode::All, objects);
        if (std::ranges::all_of(objects, signalled)) {
            DWORD flags = 0;
            for (Waitable* object : objects)
                flags |= object->TakeFor(m_thread);
            m_word.store(flags, std::memory_order_relaxed);
        } else if (ms == 0) {
            m_word.store(TimedOut, std::memory_order_relaxed);
        } else {
            waits = true;
            for (std::size_t i = 0; i < objects.size(); ++i)
                objects[i]->Enqueue(m_blocks[i]);
        }
        if (!waits)
            for (Waitable* object : objects)
                object->Part();
    }
    if (waits) {
        const bool inTime = Sleep(DeadlineAfter(ms));
        const Guard lock(JoinedLock);
        std::uint32_t word = Sleeping;
        const bool isOver =
            !inTime && m_word.compare_exchange_strong(word, TimedOut, std::memory_order_acq_rel);
        for (std::size_t i = 0; i < objects.size(); ++i) {
            if (isOver) objects[i]->Dequeue(m_blocks[i]);
            objects[i]->Part();
        }
    }
    const DWORD outcome = Outcome();
    if (outcome == TimedOut) return WAIT_TIMEOUT;
    for (std::size_t i = 0; i < objects.size(); ++i)
        if (!(ours >> i & 1)) Adopt(*objects[i]);
    return outcome;
}

// Where two threads on two cores hand something back and forth, the next hand-over comes within a
// microsecond, while to fall asleep and be woken on an idle core takes many: so it pays to stay awake for as
// long as that takes. On one core the sender needs that core to make the next hand-over, and mostly gets it
// with one yield. Where staying awake was in vain it is left out the next times, more and more of them: many
// threads that wait for one event, or a core that others want as well, are slower with it.
bool Waiter::Spin() noexcept {
    constexpr Deadline LongestSpin = 30'000;
    constexpr Deadline LongYield = 6'000;
    constexpr unsigned MostFailures = 8;
    if (HasEnded()) return true;
    if (m_waitsWithoutSpin > 0) {
        --m_waitsWithoutSpin;
        return false;
    }
    const unsigned pauses = m_isHandedAcross ? 12 : 0;
    Deadline now = Now();
    const Deadline end = now + (m_isHandedAcross ? LongestSpin : LongYield);
    bool granted = false;
    unsigned yields = 0;
    while (!granted && now < end) {
        for (unsigned i = 0; i < pauses && !granted; ++i) {
            Compiler::Pause();
            granted = HasEnded();
        }
        if (granted) break;
        sched_yield();
        ++yields;
        granted = HasEnded();
        const Deadline before = std::exchange(now, Now());
        if (now - before >= LongYield) break;
    }
    // On one core the first yield may take as long as the sender needs: to begin a thread, say. No sleep is
    // shorter.
    const bool worthIt = granted && (now < end || (yields == 1 && pauses == 0));
    m_spinFailures = worthIt ? 0 : std::min(m_spinFailures + 1, MostFailures);
    m_waitsWithoutSpin = worthIt ? 0 : 1u << m_spinFailures;
    if (granted) NoteSender();
    return granted;
}

// The word may still be Sleeping when the time is over.
bool Waiter::Sleep(Deadline deadline) noexcept {
    if (Spin()) return true;
    std::uint32_t word = m_word.load(std::memory_order_relaxed);
    if (word == Waiting || word == KeptWaiting)
        m_word.compare_exchange_strong(word, word == Waiting ? Sleeping : KeptSleeping,
                                       std::memory_order_acq_rel);
    while ((word = m_word.load(std::memory_order_acquire)) >= Outcomes)
        if (FutexWait(m_word, word, word & Granted ? Never : deadline, Reach::Process) == ETIMEDOUT)
            return false;
    NoteSender();
    return true;
}

// Waits for what was granted to be told.
DWORD Waiter::Outcome() const noexcept {
    std::uint32_t word;
    while ((word = m_word.load(std::memory_order_acquire)) & Granted)
        FutexWait(m_word, word, Never, Reach::Process);
    return word;
}

void Waiter::NoteSender() noexcept {
    m_isHandedAcross = m_senderCore.load(std::memory_order_relaxed) != sched_getcpu();
}

// The waiter may be gone as soon as its word has changed, unless it sleeps.
void Waiter::EndWait(DWORD outcome, WakeList& wakes) noexcept {
    m_senderCore.store(sched_getcpu(), std::memory_order_relaxed);
    std::uint32_t word = m_word.load(std::memory_order_relaxed);
    while (!m_word.compare_exchange_weak(word, word == Sleeping ? outcome | Granted : outcome,
                                         std::memory_order_acq_rel, std::memory_order_relaxed)) {
    }
    if (word == Sleeping) wakes.Add(*this);
}

void Waiter::Owned::Untie() const noexcept {
    if (memory) SharedObject::TieOf(*memory).Untie();
}

bool Waiter::MakeRoom(std::size_t count) noexcept {
    if (m_owned.size() + count <= m_owned.capacity()) return true;
    std::erase_if(m_owned, [](const Owned& owned) {
        const bool isGone = owned.alive.expired();
        if (isGone) owned.Untie();
        return isGone;
    });
    try {
        m_owned.reserve(2 * (m_owned.size() + count));
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void Waiter::AddOwned(Waitable& mutex) noexcept {
    m_owned.push_back({&mutex, mutex.weak_from_this(),
                       mutex.Shared() ? mutex.Shared()->Memory() : SharedObject::Mapping()});
}

void Waiter::RemoveOwned(const Waitable& mutex) noexcept {
    const auto found = std::find_if(m_owned.rbegin(), m_owned.rend(),
                                    [&](const Owned& owned) { return owned.mutex == &mutex; });
    if (found == m_owned.rend()) return;
    *found = std::move(m_owned.back());
    m_owned.pop_back();
}

void Waiter::End() noexcept {
    DropKept();
    for (const Owned& owned : std::exchange(m_owned, {})) {
        if (const auto mutex = owned.alive.lock()) mutex->Abandon();
        owned.Untie();
    }
}

void Waiter::BecomeInFork(DWORD id) noexcept {
    m_thread = id;
    DropKept();
    std::erase_if(m_owned, [&](const Owned& owned) {
        const auto mutex = owned.alive.lock();
        return !mutex || !mutex->BelongsInFork(id);
    });
}

namespace {

DWORD WaitOrRefuse(std::span<Waitable* const> objects, bool all, DWORD ms, DWORD& status) noexcept {
    bool shared = false;
    std::size_t mutexes = 0;
    for (const Waitable* object : objects) {
        shared |= object->Shared() != nullptr;
        mutexes += object->Rule().takesOwnership;
    }
    all &= objects.size() > 1;
    Waiter* waiter = nullptr;
    if (mutexes != 0 || all || shared) {
        waiter = CurrentWaiter();
        if (!waiter || !waiter->MakeRoom(mutexes)) return ERROR_NOT_ENOUGH_MEMORY;
    }
    if (all) {
        status = shared ? waiter->WaitForAllShared(objects, ms) : waiter->WaitForAll(objects, ms);
        return ERROR_SUCCESS;
    }
    for (;;) {
        const std::size_t found = FirstSignalled(objects);
        if (found == objects.size()) break;
        if (const std::optional<DWORD> flag = objects[found]->TryTake(waiter)) {
            status = static_cast<DWORD>(found) | *flag;
            return ERROR_SUCCESS;
        }
    }
    status = WAIT_TIMEOUT;
    if (ms == 0) return ERROR_SUCCESS;
    if (!waiter && !(waiter = CurrentWaiter())) return ERROR_NOT_ENOUGH_MEMORY;
    status = shared ? waiter->WaitForAnyShared(objects, ms) : waiter->WaitForAny(objects, DeadlineAfter(ms));
    return ERROR_SUCCESS;
}

}  // namespace

DWORD Wait(std::span<Waitable* const> objects, bool all, DWORD ms, DWORD& status) noexcept {
    if (DWORD code = WaitOrRefuse(objects, all, ms, status)) return code;
    if (status == WAIT_TIMEOUT || !(status & WaitRefused)) return ERROR_SUCCESS;
    return objects[status % WaitRefused]->Shared()->Refusal();
}

}  // namespace Quellan::Platform
