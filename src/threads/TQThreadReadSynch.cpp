#include "threads/TQThreadReadSynch.h"

#include "core/TQStdExceptions.h"
#include "platform/Win32.h"

#include <array>
#include <new>
#include <utility>
#include <vector>

namespace Quellan::Corvel {

namespace {

// The state of a lock.
constexpr DWORD Writer = 1;
constexpr DWORD Waiters = 2;
constexpr DWORD Reader = 4;  // one of them, or the unit in which they are counted

constexpr bool MustWait(DWORD state, bool write) noexcept {
    return write ? state != 0 : (state & Writer) != 0;
}

// That the thread reads under a lock, and how many times over.
struct ReadLockInstance {
    ULONGLONG lock;
    DWORD count;
};

// What the thread reads under, in no order. The usual few have their place in the thread's own block, where
// nothing has to be made or ended.
struct ReadLocks {
    std::array<ReadLockInstance, 8> first;
    unsigned firstCount;
    unsigned moreCount;
};
constinit thread_local ReadLocks t_reads = {};
thread_local std::vector<ReadLockInstance> t_moreReads;

// A thread's name among the living.
const void* Self() noexcept {
    return &t_reads;
}

ReadLockInstance* FindRead(ReadLocks& reads, ULONGLONG lock) noexcept {
    for (unsigned i = 0; i < reads.firstCount; ++i)
        if (reads.first[i].lock == lock) return &reads.first[i];
    if (reads.moreCount == 0) return nullptr;
    for (ReadLockInstance& read : t_moreReads)
        if (read.lock == lock) return &read;
    return nullptr;
}

// Makes sure that the next AddRead needs no memory.
void MakeRoom(const ReadLocks& reads) {
    if (reads.firstCount < reads.first.size()) return;
    try {
        if (t_moreReads.size() == t_moreReads.capacity())
            t_moreReads.reserve(2 * t_moreReads.size() + reads.first.size());
    } catch (const std::bad_alloc&) {
        TQStdExceptions::ThrowMemAllocError(L"TQThreadReadSynch::Lock");
    }
}

void AddRead(ReadLocks& reads, ULONGLONG lock) noexcept {
    if (reads.firstCount < reads.first.size()) {
        reads.first[reads.firstCount++] = {lock, 1};
    } else {
        t_moreReads.push_back({lock, 1});
        ++reads.moreCount;
    }
}

void RemoveRead(ReadLocks& reads, ReadLockInstance* read) noexcept {
    if (read >= reads.first.data() && read < reads.first.data() + reads.firstCount) {
        *read = reads.first[--reads.firstCount];
    } else {
        *read = t_moreReads.back();
        t_moreReads.pop_back();
        --reads.moreCount;
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
    DWORD free = 0;
    if (!m_state.compare_exchange_strong(free, Writer, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    m_writer.store(Self(), std::memory_order_relaxed);
    m_writeCount = 1;
    return true;
}

bool TQThreadReadSynch::TryLockRead() {
    ReadLocks& reads = t_reads;
    if (ReadLockInstance* const read = FindRead(reads, m_number)) {
        ++read->count;
        return true;
    }
    MakeRoom(reads);
    // Guessing that nobody is there, rather than looking first, brings the state to this core for writing at
    // once.
    DWORD state = 0;
    while (!m_state.compare_exchange_weak(state, state + Reader, std::memory_order_acquire,
                                          std::memory_order_relaxed))
        if (MustWait(state, false)) return false;
    AddRead(reads, m_number);
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
    ReadLocks& reads = t_reads;
    ReadLockInstance* const read = FindRead(reads, m_number);
    if (!read || --read->count != 0) return;
    RemoveRead(reads, read);
    ReleaseState(Reader);
}

void TQThreadReadSynch::ReleaseState(DWORD share) noexcept {
    DWORD state = share;
    DWORD left = 0;
    while (
        !m_state.compare_exchange_weak(state, left, std::memory_order_release, std::memory_order_relaxed)) {
        left = state - share;
        if (left == Waiters) left = 0;
    }
    if (left != 0 || (state & Waiters) == 0) return;
    const TQSynchLock guard(m_guard);
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
