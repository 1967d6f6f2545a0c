#include "TQLib/threads/TQWaitList.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/log/time/TQTimer.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQThread.h"
#include "TQLib/threads/internal/WaitFailure.h"

#include <algorithm>
#include <array>
#include <new>

namespace Quellan::Corvel {

namespace {

// One place in each wait is for an event of the list itself.
constexpr std::size_t BatchSize = MAXIMUM_WAIT_OBJECTS - 1;

// An event and the objects that are waited for together with it.
class Batch {
  public:
    Batch(const TQEvent& event, const HANDLE* handles, std::size_t count) : m_count(count) {
        m_handles[0] = event.Handle();
        std::copy_n(handles, count, m_handles.begin() + 1);
    }

    std::size_t Size() const noexcept { return m_count; }

    // What was signalled: the event's place is 0, the objects' places count from 1. WAIT_TIMEOUT or
    // WAIT_FAILED otherwise. A mutex whose owner ended counts as signalled.
    DWORD Wait(DWORD ms) const noexcept {
        const auto count = static_cast<DWORD>(m_count + 1);
        const DWORD result = WaitForMultipleObjects(count, m_handles.data(), FALSE, ms);
        return result >= WAIT_ABANDONED_0 && result < WAIT_ABANDONED_0 + count ? result - WAIT_ABANDONED_0
                                                                               : result;
    }
    HANDLE operator[](DWORD place) const noexcept { return m_handles[place]; }

  private:
    std::size_t m_count;
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> m_handles;
};

}  // namespace

// Waits for the objects beyond the owner's own. As long as they fit into one batch that is one wait. More of
// them are looked at batch after batch, and when a round finds nothing the thread rests, in a wait for the
// next batch, so that it spends a twentieth of its time looking at most.
class TQWaitList::TQWaitThread : public TQThread {
  public:
    explicit TQWaitThread(TQWaitList& list) : m_list(list) {}
    ~TQWaitThread() override {
        Stop();
        EndThread();
    }

    void Stop() override {
        TQThread::Stop();
        SetSurely(m_list.m_wake.Handle());
    }

  protected:
    unsigned int RunWork(BYTEBuf&) override {
        while (!Stopped()) {
            AnswerPause();
            const Batch batch = NextBatch();
            const DWORD result = batch.Wait(WaitTime(batch.Size()));
            if (result == WAIT_FAILED)
                Fail(GetLastError());
            else if (result == WAIT_TIMEOUT)
                Passed(batch.Size());
            else if (result == 0)
                m_quiet = 0;
            else
                Found(batch[result], result);
        }
        return 0;
    }

  private:
    static constexpr LONGLONG RestFactor = 19;
    static constexpr LONGLONG LongestRestMs = 50;

    void AnswerPause() {
        {
            const TQThreadSynch::TQSynchLock guard(m_list.m_lock);
            if (m_list.m_phase != Phase::PauseAsked) return;
            m_list.m_phase = Phase::Paused;
        }
        SetSurely(m_list.m_paused.Handle());
    }

    // None while the thread is to pause.
    Batch NextBatch() {
        const TQThreadSynch::TQSynchLock guard(m_list.m_lock);
        m_size = m_list.m_phase == Phase::Watching ? m_list.m_rest.size() : 0;
        if (m_position >= m_size) m_position = 0;
        return Batch(m_list.m_wake, m_list.m_rest.data() + m_position,
                     std::min(m_size - m_position, BatchSize));
    }

    DWORD WaitTime(std::size_t batchSize) {
        if (batchSize == m_size) return INFINITE;
        if (m_quiet == 0) m_round.Restart();
        if (m_quiet < m_size) return 0;
        const LONGLONG rest = m_round.Elapsed().Steps() * RestFactor / TQTimeSpan::StepsInMillisecond;
        return static_cast<DWORD>(std::clamp<LONGLONG>(rest, 1, LongestRestMs));
    }

    void Passed(std::size_t batchSize) {
        // The rest at the end of a round was a wait too.
        m_quiet = m_quiet < m_size ? m_quiet + batchSize : 0;
        m_position += batchSize;
    }

    // Goes on behind the object, so that one that is always signalled does not hide the others.
    void Found(HANDLE handle, DWORD place) {
        m_list.SetFound(handle);
        SetSurely(m_list.m_changed.Handle());
        m_position += place - 1;
        m_quiet = 0;
    }

    // Tells the owner and pauses until the owner waits again.
    void Fail(DWORD code) {
        {
            const TQThreadSynch::TQSynchLock guard(m_list.m_lock);
            if (m_list.m_phase == Phase::Watching) m_list.m_phase = Phase::Paused;
            m_list.m_failure = code;
        }
        SetSurely(m_list.m_changed.Handle());
    }

    TQWaitList& m_list;

    // The thread's alone.
    std::size_t m_size = 0;      // of what there is to wait for
    std::size_t m_position = 0;  // of the next batch in it
    std::size_t m_quiet = 0;     // how many objects in a row were not signalled
    TQTimer m_round;
};

TQWaitList::TQWaitList() try
    : m_owner(GetCurrentThreadId()),
      m_changed(false),
      m_standing(m_changed.Handle()),
      m_wake(false),
      m_paused(false) {
    m_first.reserve(BatchSize);
    m_own.reserve(BatchSize);
} catch (const std::bad_alloc&) {
    TQStdExceptions::ThrowMemAllocError(L"TQWaitList::TQWaitList");
}

TQWaitList::TQWaitList(const TQWaitList& other) : TQWaitList() {
    for (const HANDLE handle : other.Handles())
        Insert(handle);
}

TQWaitList& TQWaitList::operator=(const TQWaitList& other) {
    if (this == &other) return *this;
    CheckOwner();
    const std::vector<HANDLE> wanted = other.Handles();
    const std::vector<HANDLE> held = Handles();
    const auto isIn = [](const std::vector<HANDLE>& sorted, HANDLE handle) {
        return std::ranges::binary_search(sorted, handle);
    };
    try {
        for (const HANDLE handle : wanted)
            Insert(handle);
    } catch (...) {
        for (const HANDLE handle : wanted)
            if (!isIn(held, handle)) Remove(handle);
        throw;
    }
    for (const HANDLE handle : held)
        if (!isIn(wanted, handle)) Remove(handle);
    return *this;
}

TQWaitList::~TQWaitList() = default;

void TQWaitList::Add(HANDLE handle) {
    CheckOwner();
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_handles.contains(handle)) return;
        if (m_handles.size() == MaxSize)
            TQStdExceptions::ThrowOverflowError(L"Too many elements in the wait list.");
    }
    Insert(handle);
}

void TQWaitList::Remove(HANDLE handle) {
    CheckOwner();
    bool isTakenAway;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        const auto found = m_handles.find(handle);
        if (found == m_handles.end()) return;
        Watch& watch = found->second;
        isTakenAway = Disarm(watch);
        (watch.isFound ? m_found : m_quiet).erase(watch.place);
        if (m_returned == &watch) m_returned = nullptr;
        m_handles.erase(found);

        const auto own = std::ranges::lower_bound(m_first, handle);
        if (own != m_first.end() && *own == handle) {
            m_first.erase(own);
            m_isOwnSettled = false;
            // The lowest of the others takes the place.
            const auto next = m_first.empty() ? m_handles.begin() : m_handles.upper_bound(m_first.back());
            if (next != m_handles.end()) {
                m_first.push_back(next->first);
                if (!next->second.isStanding) isTakenAway = Disarm(next->second);
            }
        }
        isTakenAway = isTakenAway && m_waitThread && m_phase == Phase::Watching;
        if (isTakenAway) m_phase = Phase::PauseAsked;
    }
    if (isTakenAway) AwaitPause();
}

HANDLE TQWaitList::Wait(DWORD ms) {
    CheckOwner();
    const TQCountdownTimer timer(ms);
    for (HANDLE last = LookAgainAtReturned();; last = nullptr) {
        if (const HANDLE found = NextSignal()) return found;
        PrepareWaitThread();
        SettleOwn();
        const auto behind = last ? std::ranges::upper_bound(m_own, last) : m_own.end();
        const auto left = static_cast<std::size_t>(m_own.end() - behind);
        const Batch all(m_changed, m_own.data(), m_own.size());
        const Batch others(m_changed, m_own.data() + m_own.size() - left, left);
        DWORD result = left != 0 ? others.Wait(0) : WAIT_TIMEOUT;
        const bool isOther = result != WAIT_TIMEOUT;
        if (!isOther) result = all.Wait(timer.Remaining());
        if (result == WAIT_FAILED) TQSysException::ThrowLastError(WaitFailed);
        if (result == WAIT_TIMEOUT) return NextSignal();
        if (result != 0) SetFound((isOther ? others : all)[result]);
    }
}

DWORD TQWaitList::Size() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return static_cast<DWORD>(m_handles.size());
}

void TQWaitList::CheckOwner() const {
    if (GetCurrentThreadId() != m_owner)
        TQStdExceptions::ThrowBadFuncError(L"Only the owning thread can call this method on the wait list.");
}

std::vector<HANDLE> TQWaitList::Handles() const try {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    std::vector<HANDLE> handles;
    handles.reserve(m_handles.size());
    for (const auto& [handle, watch] : m_handles)
        handles.push_back(handle);
    return handles;
} catch (const std::bad_alloc&) {
    TQStdExceptions::ThrowMemAllocError(L"TQWaitList::Handles");
}

void TQWaitList::Insert(HANDLE handle) {
    bool isForThread = false;
    try {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_handles.contains(handle)) return;
        // All that needs memory is done before anything changes; from then on neither thread needs any.
        if (m_rest.capacity() <= m_handles.size()) m_rest.reserve(2 * m_handles.size() + BatchSize);
        std::list<Watch*> node(1, nullptr);
        Watch* forThread = &m_handles.emplace(handle, Watch{handle, node.begin()}).first->second;
        node.front() = forThread;
        m_quiet.splice(m_quiet.end(), node);

        const auto place = std::ranges::upper_bound(m_first, handle);
        if (m_first.size() < BatchSize) {
            m_first.insert(place, handle);
            m_isOwnSettled = false;
        } else {
            if (place != m_first.end()) {
                forThread = &m_handles.find(m_first.back())->second;
                m_first.pop_back();
                m_first.insert(m_first.begin() + (place - m_first.begin()), handle);
                m_isOwnSettled = false;
            }
            Arm(*forThread);
            isForThread = forThread->slot != NoSlot && m_phase == Phase::Watching;
        }
    } catch (const std::bad_alloc&) {
        TQStdExceptions::ThrowMemAllocError(L"TQWaitList::Add");
    }
    if (isForThread) SetSurely(m_wake.Handle());
}

HANDLE TQWaitList::NextSignal() {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    CollectReady();
    if (m_found.empty()) {
        if (const DWORD code = std::exchange(m_failure, 0)) throw TQSysException(code, WaitFailed);
        return nullptr;
    }
    m_returned = m_found.front();
    m_returned->isFound = false;
    m_quiet.splice(m_quiet.end(), m_found, m_found.begin());
    return m_returned->handle;
}

// Only now, when the owner has dealt with it and reset it maybe, is the object returned last watched again.
// Returns its handle where the owner does that itself.
HANDLE TQWaitList::LookAgainAtReturned() {
    bool isForThread = false;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        Watch* const watch = std::exchange(m_returned, nullptr);
        if (!watch) return nullptr;
        if (watch->isOwn) return watch->handle;
        if (std::ranges::binary_search(m_first, watch->handle)) {
            m_isOwnSettled = m_isOwnSettled && (watch->isStanding = BeginStanding(*watch));
        } else {
            Arm(*watch);
            isForThread = watch->slot != NoSlot;
        }
    }
    if (isForThread) SetSurely(m_wake.Handle());
    return nullptr;
}

void TQWaitList::SetFound(HANDLE handle) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    CollectReady();
    const auto found = m_handles.find(handle);
    if (found != m_handles.end()) MarkFound(found->second);
}

void TQWaitList::CollectReady() {
    while (auto* const watch = static_cast<Watch*>(m_standing.TakeReady())) {
        watch->isStanding = false;
        MarkFound(*watch);
    }
}

void TQWaitList::MarkFound(Watch& watch) {
    if (watch.isFound) return;
    Disarm(watch);
    watch.isFound = true;
    m_found.splice(m_found.end(), m_quiet, watch.place);
}

void TQWaitList::PrepareWaitThread() {
    if (Size() <= BatchSize) {
        if (m_waitThread) m_isOwnSettled = false;
        m_waitThread.reset();
        return;
    }
    if (!m_waitThread) {
        m_isOwnSettled = false;
        std::unique_ptr<TQWaitThread> thread(new (std::nothrow) TQWaitThread(*this));
        if (!thread) TQStdExceptions::ThrowMemAllocError(L"Unable to allocate wait list thread.");
        thread->Start(false);
        m_waitThread = std::move(thread);
    }
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (m_phase != Phase::Paused) return;
        m_phase = Phase::Watching;
        ArmStanding();
    }
    SetSurely(m_wake.Handle());
}

// The thread answers at the end of its wait; should it have ended, there is nothing to wait for.
void TQWaitList::AwaitPause() {
    SetSurely(m_wake.Handle());
    AwaitSurely({m_paused.Handle(), m_waitThread->ThreadHandle()});
}

bool TQWaitList::BeginStanding(Watch& watch) noexcept {
    try {
        return m_standing.Begin(watch.handle, &watch, watch.standing);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// The owner of a long list leaves to others what they can do for him, too. What was found since is there at
// once: the event tells so.
void TQWaitList::SettleOwn() {
    if (m_isOwnSettled) return;
    m_own.clear();
    m_isOwnSettled = true;
    const TQThreadSynch::TQSynchLock guard(m_lock);
    const bool isLong = m_handles.size() > BatchSize;
    for (const HANDLE handle : m_first) {
        Watch& watch = m_handles.find(handle)->second;
        watch.isOwn = false;
        if (watch.isStanding && !isLong) {
            const bool isReady = m_standing.End(*watch.standing);
            watch.isStanding = false;
            if (isReady) MarkFound(watch);
        }
        if (watch.isFound) {
            m_isOwnSettled = false;
            continue;
        }
        if (isLong && !watch.isStanding) watch.isStanding = BeginStanding(watch);
        watch.isOwn = !watch.isStanding;
        if (watch.isOwn) m_own.push_back(handle);
    }
}

// What can be watched without the auxiliary thread need not wait for it. What lacks the memory for that is
// left to the thread.
void TQWaitList::ArmStanding() {
    std::size_t kept = 0;
    for (const HANDLE handle : m_rest) {
        Watch& watch = m_handles.find(handle)->second;
        watch.isStanding = BeginStanding(watch);
        watch.slot = watch.isStanding ? NoSlot : kept;
        if (!watch.isStanding) m_rest[kept++] = handle;
    }
    m_rest.resize(kept);
}

// Hands a handle that is neither found nor just returned to the auxiliary thread.
void TQWaitList::Arm(Watch& watch) {
    watch.isOwn = false;
    if (watch.isFound || watch.isStanding || watch.slot != NoSlot || &watch == m_returned) return;
    if (m_phase == Phase::Watching && BeginStanding(watch)) {
        watch.isStanding = true;
        return;
    }
    watch.slot = m_rest.size();
    m_rest.push_back(watch.handle);
}

// Takes a handle back; false where the auxiliary thread did not have it.
bool TQWaitList::Disarm(Watch& watch) {
    if (watch.isStanding) {
        watch.standing.reset();
        watch.isStanding = false;
    }
    if (watch.slot == NoSlot) return false;
    const HANDLE last = m_rest.back();
    m_rest[watch.slot] = last;
    m_handles.find(last)->second.slot = watch.slot;
    m_rest.pop_back();
    watch.slot = NoSlot;
    return true;
}

}  // namespace Quellan::Corvel
