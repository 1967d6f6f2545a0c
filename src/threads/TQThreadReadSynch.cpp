#include "threads/TQThreadReadSynch.h"

#include "core/TQStdExceptions.h"
#include "platform/Win32.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

// The state of a lock.
constexpr DWORD Writer = 1;
constexpr DWORD Waiters = 2;
constexpr DWORD Reader = 4;  // one of them, or the unit in which they are counted

constexpr bool MustWait(DWORD state, bool write) noexcept {
    return write ? (state & ~Waiters) != 0 : (state & Writer) != 0;
}

// How often the thread reads under a lock. One that it has done with stays until its place is needed, as the
// same lock is likely to come again.
struct ReadLockInstance {
    ULONGLONG lock;
    DWORD count;
};

// One beyond the usual few. It goes as soon as the thread has done with it: with GCC on Windows the memory of
// a thread's variables is freed before their destructors run, so they must have none.
struct MoreRead {
    ReadLockInstance read;
    MoreRead* next;
};

// The usual few have their place in the thread's own block, where nothing has to be made or ended.
struct ReadLocks {
    std::array<ReadLockInstance, 8> first;
    MoreRead* more;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local ReadLocks t_reads = {};

// A thread's name among the living.
const void* Self() noexcept {
    return &t_reads;
}

[[gnu::noinline]] ReadLockInstance* FindMoreRead(ULONGLONG lock) noexcept {
    for (MoreRead* more = t_reads.more; more; more = more->next)
        if (more->read.lock == lock) return &more->read;
    return nullptr;
}

ReadLockInstance* FindRead(ULONGLONG lock) noexcept {
    for (ReadLockInstance& read : t_reads.first)
        if (read.lock == lock) return &read;
    return t_reads.more ? FindMoreRead(lock) : nullptr;
}

// For a lock that is not found.
[[gnu::noinline]] ReadLockInstance& NewRead(ULONGLONG lock) {
    const auto free = [](const ReadLockInstance& read) { return read.count == 0; };
    if (const auto found = std::ranges::find_if(t_reads.first, free); found != t_reads.first.end())
        return *found = {lock, 0};
    auto* const more = new (std::nothrow) MoreRead{{lock, 0}, t_reads.more};
    if (!more) TQStdExceptions::ThrowMemAllocError(L"TQThreadReadSynch::Lock");
    t_reads.more = more;
    return more->read;
}

[[gnu::noinline]] void DropUnusedMoreReads() noexcept {
    for (MoreRead** link = &t_reads.more; *link;) {
        if ((*link)->read.count == 0)
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

TQThreadReadSynch::TQThreadReadSynch() : m_number(NextLockNumber()), m_noHolder(true) {
    m_noHolder.Set();
}

TQThreadReadSynch::TQThreadReadSynch(const TQThreadReadSynch&) : TQThreadReadSynch() {}

TQThreadReadSynch& TQThreadReadSynch::operator=(const TQThreadReadSynch& other) {
    if (this == &other) return *this;
    const TQSynchLock guard(m_guard);
    m_number = NextLockNumber();
    m_writer = nullptr;
    m_state = 0;
    m_noHolder.Set();
    return *this;
}

TQThreadReadSynch::~TQThreadReadSynch() = default;

void TQThreadReadSynch::Lock(bool write) {
    while (!TryLock(write))
        WaitForNoHolder(write);
}

bool TQThreadReadSynch::TryLock(bool write) {
    if (!write) return TryLockRead();
    if (IsWriter()) {
        ++m_writeCount;
        return true;
    }
    DWORD state = 0;
    while (!m_state.compare_exchange_weak(state, state | Writer, std::memory_order_acquire,
                                          std::memory_order_relaxed))
        if (MustWait(state, true)) return false;
    m_writer.store(Self(), std::memory_order_relaxed);
    m_writeCount = 1;
    return true;
}

bool TQThreadReadSynch::TryLockRead() {
    ReadLockInstance* read = FindRead(m_number);
    if (!read) read = &NewRead(m_number);
    // Entering first and leaving again if a writer is there, rather than looking first, is one step however
    // many readers enter at once.
    if (read->count == 0 && m_state.fetch_add(Reader, std::memory_order_acquire) & Writer) {
        ReleaseState(Reader);
        return false;
    }
    ++read->count;
    return true;
}

// Only the thread itself writes its own name there, so that what it reads of itself is never out of date.
bool TQThreadReadSynch::IsWriter() const noexcept {
    return m_writer.load(std::memory_order_relaxed) == Self();
}

// The event is reset for this wait under the mark that makes the last holder set it; one that was released
// between is noticed before. An event set late, by the holder before the present one, costs a further round
// and nothing else.
void TQThreadReadSynch::WaitForNoHolder(bool write) {
    {
        const TQSynchLock guard(m_guard);
        DWORD state = m_state.load(std::memory_order_relaxed);
        do {
            if (!MustWait(state, write)) return;
        } while (!m_state.compare_exchange_weak(state, state | Waiters, std::memory_order_relaxed));
        m_noHolder.Reset();
    }
    m_noHolder.Wait(INFINITE);
}

void TQThreadReadSynch::UnLock() {
    if (IsWriter()) {
        if (--m_writeCount != 0) return;
        m_writer.store(nullptr, std::memory_order_relaxed);
        ReleaseState(Writer);
        return;
    }
    ReadLockInstance* const read = FindRead(m_number);
    if (!read || read->count == 0 || --read->count != 0) return;
    ReleaseState(Reader);
    if (t_reads.more) DropUnusedMoreReads();
}

void TQThreadReadSynch::ReleaseState(DWORD share) noexcept {
    if (m_state.fetch_sub(share, std::memory_order_release) - share == Waiters) WakeWaiters();
}

void TQThreadReadSynch::WakeWaiters() noexcept {
    const TQSynchLock guard(m_guard);
    m_state.fetch_and(~Waiters, std::memory_order_relaxed);
    m_noHolder.Set();
}

TQThreadWriteSynch::TQThreadWriteSynch(TQThreadReadSynch& lock) noexcept
    : TQThreadSynch(HeldWhileWaiting()), m_lock(lock) {}

TQThreadWriteSynch::~TQThreadWriteSynch() = default;

// Who finds the lock free need not queue up for it. Who did queue up does so for each further acquisition, so
// that each release knows what to give back.
void TQThreadWriteSynch::Lock() {
    if (!IsQueued() && m_lock.TryLock(true)) return;
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
    if (--m_queuedDepth == 0) m_queued.store(nullptr, std::memory_order_relaxed);
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
