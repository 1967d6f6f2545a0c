#include "TQLib/threads/TQThreadReadSynch.h"

#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/RaceTools.h"
#include "TQLib/text/memory/TQStdExceptions.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

// The lower half of a lock's state; the upper half is the epoch.
constexpr ULONGLONG Writer = 1;
constexpr ULONGLONG Waiters = 2;
constexpr ULONGLONG Reader = 4;  // one of them, or the unit in which they are counted

constexpr DWORD EpochOf(ULONGLONG state) noexcept {
    return static_cast<DWORD>(state >> 32);
}

constexpr DWORD HoldersOf(ULONGLONG state) noexcept {
    return static_cast<DWORD>(state & ~Waiters);
}

constexpr bool MustWait(ULONGLONG state, bool write) noexcept {
    return write ? HoldersOf(state) != 0 : (state & Writer) != 0;
}

// How a thread holds a lock. What it has done with, or what an assignment has ended, stays until its place is
// needed, as the same lock is likely to come again.
struct LockInstance {
    ULONGLONG lock;
    DWORD epoch;
    DWORD count;
    bool isWriter;

    bool IsHeldIn(ULONGLONG state) const noexcept { return count != 0 && epoch == EpochOf(state); }
};

// One beyond the usual few. It goes as soon as the thread has done with it: with GCC on Windows the memory of
// a thread's variables is freed before their destructors run, so they must have none.
struct MoreHeld {
    LockInstance held;
    MoreHeld* next;
};

// The usual few have their place in the thread's own block, where nothing has to be made or ended. A thread
// that comes later starts with an empty one, and owns nothing that this one has left behind.
struct HeldLocks {
    std::array<LockInstance, 8> first;
    MoreHeld* more;
    DWORD thread;  // the id under which it was first asked for; a fork leaves it as it is
};
TQ_THERE_WITH_THREAD constinit thread_local HeldLocks t_held = {};

TQ_NOINLINE DWORD FirstSelf() noexcept {
    return t_held.thread = GetCurrentThreadId();
}

DWORD Self() noexcept {
    return t_held.thread != 0 ? t_held.thread : FirstSelf();
}

TQ_NOINLINE LockInstance* FindMoreHeld(ULONGLONG lock) noexcept {
    for (MoreHeld* more = t_held.more; more; more = more->next)
        if (more->held.lock == lock) return &more->held;
    return nullptr;
}

LockInstance* FindHeld(ULONGLONG lock) noexcept {
    for (LockInstance& held : t_held.first)
        if (held.lock == lock) return &held;
    return t_held.more ? FindMoreHeld(lock) : nullptr;
}

// For a lock that is not found.
TQ_NOINLINE LockInstance& NewHeld(ULONGLONG lock) {
    const auto free = [](const LockInstance& held) { return held.count == 0; };
    if (const auto found = std::ranges::find_if(t_held.first, free); found != t_held.first.end())
        return *found = {lock, 0, 0, false};
    auto* const more = new (std::nothrow) MoreHeld{{lock, 0, 0, false}, t_held.more};
    if (!more) TQStdExceptions::ThrowMemAllocError(L"TQThreadReadSynch::Lock");
    t_held.more = more;
    return more->held;
}

TQ_NOINLINE void DropUnusedMoreHeld() noexcept {
    for (MoreHeld** link = &t_held.more; *link;) {
        if ((*link)->held.count == 0)
            delete std::exchange(*link, (*link)->next);
        else
            link = &(*link)->next;
    }
}

ULONGLONG NextLockNumber() noexcept {
    static std::atomic<ULONGLONG> last = 0;
    return ++last;
}

}  // namespace

TQThreadReadSynch::TQThreadReadSynch() : m_number(NextLockNumber()), m_noHolder(nullptr, false, true, true) {
    Platform::TellOwnMemory(&m_state, sizeof m_state);
}

TQThreadReadSynch::TQThreadReadSynch(const TQThreadReadSynch&) : TQThreadReadSynch() {}

TQThreadReadSynch& TQThreadReadSynch::operator=(const TQThreadReadSynch& other) {
    if (this == &other) return *this;
    {
        const TQSynchLock guard(m_guard);
        ULONGLONG state = m_state.load(std::memory_order_relaxed);
        while (!m_state.compare_exchange_weak(state, ULONGLONG{EpochOf(state) + 1} << 32,
                                              std::memory_order_acq_rel, std::memory_order_relaxed)) {
        }
    }
    SetSurely(m_noHolder.Handle());
    return *this;
}

// Whoever gave it back last may still be about to leave the guard.
TQThreadReadSynch::~TQThreadReadSynch() {
    const TQSynchLock guard(m_guard);
}

void TQThreadReadSynch::Lock(bool write) {
    while (!TryLock(write))
        WaitForNoHolder(write);
}

bool TQThreadReadSynch::TryLock(bool write) {
    LockInstance* held = FindHeld(m_number);
    ULONGLONG state = m_state.load(std::memory_order_relaxed);
    if (held && held->IsHeldIn(state)) {
        if (held->isWriter != write) return false;
        ++held->count;
        return true;
    }
    if (!held) held = &NewHeld(m_number);
    held->count = 0;
    if (write) {
        do
            if (MustWait(state, true)) return false;
        while (!m_state.compare_exchange_weak(state, state | Writer, std::memory_order_acquire,
                                              std::memory_order_relaxed));
    } else {
        // Entering first and leaving again if a writer is there, rather than looking first, is one step
        // however many readers enter at once.
        state = m_state.fetch_add(Reader, std::memory_order_acquire);
        if (MustWait(state, false)) {
            Release(Reader, EpochOf(state));
            return false;
        }
    }
    Platform::TellAcquired(this);
    *held = {m_number, EpochOf(state), 1, write};
    return true;
}

// The event is reset for this wait under the mark that makes the last holder set it; one that was released
// between is noticed before. An event set late, by the holder before the present one, costs a further round
// and nothing else.
TQ_NOINLINE void TQThreadReadSynch::WaitForNoHolder(bool write) {
    {
        const TQSynchLock guard(m_guard);
        ULONGLONG state = m_state.load(std::memory_order_relaxed);
        do {
            if (!MustWait(state, write)) return;
        } while (!m_state.compare_exchange_weak(state, state | Waiters, std::memory_order_relaxed));
        m_noHolder.Reset();
    }
    static_cast<void>(m_noHolder.Wait(INFINITE));
}

void TQThreadReadSynch::UnLock() {
    LockInstance* const held = FindHeld(m_number);
    if (!held || held->count == 0 || --held->count != 0) return;
    const ULONGLONG share = held->isWriter ? Writer : Reader;
    const DWORD epoch = held->epoch;
    if (t_held.more) DropUnusedMoreHeld();
    Platform::TellReleased(this);
    Release(share, epoch);
}

// Once the state has changed somebody else may have destroyed the lock.
void TQThreadReadSynch::Release(ULONGLONG share, DWORD epoch) {
    ULONGLONG state = m_state.load(std::memory_order_relaxed);
    do {
        if (EpochOf(state) != epoch) return;
        if (state & Waiters && HoldersOf(state - share) == 0) return ReleaseLast(share, epoch);
    } while (!m_state.compare_exchange_weak(state, state - share, std::memory_order_release,
                                            std::memory_order_relaxed));
}

// The same where somebody waits: for the destructor, the state changes under the guard.
TQ_NOINLINE void TQThreadReadSynch::ReleaseLast(ULONGLONG share, DWORD epoch) {
    const TQEvent noHolder = m_noHolder;
    {
        const TQSynchLock guard(m_guard);
        ULONGLONG state = m_state.load(std::memory_order_relaxed), next;
        do {
            if (EpochOf(state) != epoch) return;
            next = state - share;
            if (HoldersOf(next) == 0) next &= ~Waiters;
        } while (!m_state.compare_exchange_weak(state, next, std::memory_order_release,
                                                std::memory_order_relaxed));
    }
    SetSurely(noHolder.Handle());
}

TQThreadWriteSynch::TQThreadWriteSynch(TQThreadReadSynch& lock) noexcept
    : TQThreadSynch(HeldWhileWaiting()), m_lock(lock) {}

TQThreadWriteSynch::~TQThreadWriteSynch() = default;

// Who finds the lock free need not queue up for it. Who did queue up does so for each further acquisition, so
// that each release knows what to give back.
void TQThreadWriteSynch::Lock() {
    if (IsQueued() || !m_lock.TryLock(true)) LockQueued();
}

TQ_NOINLINE void TQThreadWriteSynch::LockQueued() {
    TQThreadSynch::Lock();
    try {
        m_lock.Lock(true);
    } catch (...) {
        TQThreadSynch::UnLock();
        throw;
    }
    m_queued.store(Self(), std::memory_order_relaxed);
    ++m_queuedDepth;
}

void TQThreadWriteSynch::UnLock() {
    m_lock.UnLock();
    if (!IsQueued()) return;
    if (--m_queuedDepth == 0) m_queued.store(0, std::memory_order_relaxed);
    TQThreadSynch::UnLock();
}

bool TQThreadWriteSynch::IsQueued() const noexcept {
    return m_queued.load(std::memory_order_relaxed) == Self();
}

TQThreadSynch::TQSynchLock::TQSynchLock(TQThreadReadSynch& lock) TQ_NOT_ANALYSED : m_readLock(&lock) {
    lock.Lock(false);
}

void TQThreadSynch::TQSynchLock::UnLockRead() {
    m_readLock->UnLock();
}

}  // namespace Quellan::Corvel
