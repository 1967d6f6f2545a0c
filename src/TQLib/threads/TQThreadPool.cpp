#include "TQLib/threads/TQThreadPool.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/ProcessEnd.h"
#include "TQLib/text/memory/internal/Translated.h"
#include "TQLib/threads/internal/ExceptionMessage.h"
#include "TQLib/threads/internal/GuardedStep.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr DWORD MaxThreadsOfAPool = 16;
constexpr ULONGLONG MaxThreadsOfAProcessor = 510;

constexpr DWORD IdleLookMs = 100'000;
constexpr LONGLONG KeepIdleMs = 600'000;
constexpr DWORD StopAgainMs = 50;     // between stop packets that come before the last posts
constexpr DWORD TakeAgainMs = 50;     // after a failure to take work
constexpr DWORD PortPassMs = 50;      // until what is missing in the port is looked for, or posted, again
constexpr DWORD GrowAgainMs = 1'000;  // after a failure to make a thread

constexpr unsigned int StoppedCode = 0x80000015;
constexpr unsigned int FirstStructuredCode = 0xC0000000;

constexpr const wchar_t* HandlerContext = L"Processing thread pool work";
constexpr const wchar_t* PostFailed = L"Posting of the thread pool work failed.";

// Of a stop packet, which carries no data.
constexpr DWORD StopBytes = 0xFFFFFFFF;

// Two 32-bit counters in one word, which change together.
constexpr ULONGLONG HighOne = ULONGLONG{1} << 32;
// In the number of anonymous posts: the pool was stopped.
constexpr ULONGLONG StoppedPosts = ULONGLONG{1} << 63;
constexpr DWORD Low(ULONGLONG word) noexcept {
    return static_cast<DWORD>(word);
}
constexpr DWORD High(ULONGLONG word) noexcept {
    return static_cast<DWORD>(word >> 32);
}

// In the low half of a pool's use of its threads.
constexpr ULONGLONG OneBusy = 1;
constexpr unsigned TakingShift = 16;
constexpr ULONGLONG OneTaking = ULONGLONG{1} << TakingShift;
constexpr DWORD BusyIn(ULONGLONG use) noexcept {
    return Low(use) & ((DWORD{1} << TakingShift) - 1);
}
constexpr DWORD TakingIn(ULONGLONG use) noexcept {
    return Low(use) >> TakingShift;
}

constexpr std::size_t KeptSpareItems = 65'536;
constexpr ULONGLONG KeptBytes = 64 * 1024;  // of a thread's buffer from one item to the next

// By an interlocked operation, so that it is ordered among those that change the counter.
template <class T>
T Read(std::atomic<T>& counter) noexcept {
    T value = 0;
    counter.compare_exchange_strong(value, 0);
    return value;
}

OVERLAPPED* PlatformRecord(_TQWin32AsynchRoot::OVERLAPPED_DATA& packet) noexcept {
    return reinterpret_cast<OVERLAPPED*>(packet.overlapped);
}

struct PacketFree {
    void operator()(_TQWin32AsynchRoot::OVERLAPPED_DATA* packet) const noexcept {
        _TQWin32AsynchRoot::FreeOverlapped(packet);
    }
};
using PacketHolder = std::unique_ptr<_TQWin32AsynchRoot::OVERLAPPED_DATA, PacketFree>;

DWORD ProcessorCount() noexcept {
    SYSTEM_INFO info;
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors;
}

[[noreturn]] void ThrowStopped() {
    throw TQException(StoppedCode,
                      L"Thread pool has been stopped - no further work can be done on the pool.");
}

}  // namespace

// A thread that has waited, from where it counts as busy to where its item counts as taken. A post in this
// time needs no thread for that item; it relies on this one for its own, which sees to it that there is
// another one.
class _TQThreadPoolBase::Taking {
  public:
    Taking() noexcept = default;
    Taking(const Taking&) = delete;
    Taking& operator=(const Taking&) = delete;
    ~Taking() { End(); }

    void Begin(_TQThreadPoolBase& pool) noexcept {
        m_pool = &pool;
        pool.m_threadUse.fetch_sub(HighOne - OneBusy - OneTaking);
    }
    void End() noexcept {
        if (!m_pool) return;
        m_pool->m_threadUse.fetch_sub(OneTaking);
        if (m_pool->NeedsThread()) m_pool->WakeThread();
        m_pool = nullptr;
    }

  private:
    _TQThreadPoolBase* m_pool = nullptr;
};

// What a thread takes out of the port.
struct _TQThreadPoolBase::Packet {
    ULONG_PTR key = 0;
    DWORD bytes = 0;
    OVERLAPPED* record = nullptr;
    DWORD error = ERROR_SUCCESS;  // with which the operation failed that the packet completes
};

_TQThreadPoolBase::ThreadLimits _TQThreadPoolBase::LimitsFor(DWORD processors, DWORD requested) noexcept {
    const DWORD p = std::max<DWORD>(processors, 1);
    if (requested < 2) return {p, 2 * p};
    // On every machine the last of the three is below the one before it; it is meant to be.
    return {p, static_cast<DWORD>(
                   std::min<ULONGLONG>({requested, MaxThreadsOfAProcessor * p, MaxThreadsOfAPool}))};
}

_TQThreadPoolBase::_TQThreadPoolBase(const void* data, ULONGLONG size, DWORD maxThreads)
    : TQThread(data, size) {
    const ThreadLimits limits = LimitsFor(ProcessorCount(), maxThreads);
    m_minThreads = limits.minimum;
    m_maxThreads = limits.maximum;
    MarkAsOwn(m_turn);
    MarkAsOwn(m_stop);
    m_port.Attach(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    if (!m_port) TQSysException::ThrowLastError(L"Completion port could not be created for thread pool.");
    const auto event = [](BOOL manualReset, BOOL initialState) {
        const HANDLE handle = CreateEventW(nullptr, manualReset, initialState, nullptr);
        if (!handle) TQSysException::ThrowLastError(L"Wakeup event could not be created for thread pool.");
        return Handle(handle);
    };
    m_wakeEvent = event(FALSE, FALSE);
    m_startOver = event(TRUE, TRUE);
    m_othersGone = event(TRUE, FALSE);
    auto* const ids = new (std::nothrow) IDQueue;
    if (!ids) TQStdExceptions::ThrowMemAllocError(L"Allocation of thread pool requestor ID queue failed");
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        m_ids.Reset(ids);
    }
    Translated(L"_TQThreadPoolBase::_TQThreadPoolBase", [&] { m_callOnExit.emplace(__ProcessOnExit, this); });
}

_TQThreadPoolBase::~_TQThreadPoolBase() {
    CloseUp();
}

bool _TQThreadPoolBase::AddWork(const void* data, DWORD size, DWORD requestorID) {
    return _PostWork(data, size, requestorID);
}

DWORD _TQThreadPoolBase::GetNewRequestorID() {
    QueueMap made;
    Translated(L"_TQThreadPoolBase::GetNewRequestorID", [&] { made.try_emplace(0); });
    auto queue = made.extract(made.begin());
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    // Identifiers come round again after 2^32 of them.
    do
        ++m_lastRequestorID;
    while (m_lastRequestorID == 0 || m_queues.contains(m_lastRequestorID));
    queue.key() = m_lastRequestorID;
    m_queues.insert(std::move(queue));
    return m_lastRequestorID;
}

void _TQThreadPoolBase::ReleaseRequestorID(DWORD requestorID) {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    const auto found = m_queues.find(requestorID);
    if (found == m_queues.end()) return;
    DropItems(found->second);
    m_queues.erase(found);
}

void _TQThreadPoolBase::ClearRequestorItems(DWORD requestorID) {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    if (WorkQueue* const queue = RequestorQueue(requestorID)) DropItems(*queue);
}

void _TQThreadPoolBase::ClearAll() {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    for (auto& [id, queue] : m_queues)
        DropItems(queue);
    DropAnonymous();
}

void _TQThreadPoolBase::StopThreads() {
    if (Platform::AreOtherThreadsGone()) return;  // and the pool's with them
    const _TQLastErrorKeeper keeper;
    Stop();
    if (IsOwnThread()) return;
    if (TQPoolThread* const self = CallingPoolThread()) return AwaitOtherPoolThreads(*self);
    // Whoever is making the pool's own thread may not know yet that the pool is stopped.
    AwaitSurely({m_startOver.Get()});
    EndThread();
}

DWORD _TQThreadPoolBase::WorkCount() const {
    return AnonymousItems() + Read(m_requestorItems);
}

DWORD _TQThreadPoolBase::ThreadsWaiting() const {
    return High(Read(m_threadUse));
}

DWORD _TQThreadPoolBase::ThreadsBusy() const {
    return BusyIn(Read(m_threadUse));
}

DWORD _TQThreadPoolBase::ThreadsAllocated() const {
    return Read(m_allocated);
}

DWORD _TQThreadPoolBase::MaxThreads() const {
    return m_maxThreads;
}

DWORD _TQThreadPoolBase::PortObjectCount() const {
    return Read(m_portObjects);
}

bool _TQThreadPoolBase::IsStopped() const noexcept {
    return m_posted.load() & StoppedPosts;
}

// The settled ones first: never less than none.
DWORD _TQThreadPoolBase::AnonymousItems() const noexcept {
    const ULONGLONG settled = Read(m_settled);
    return Low(Read(m_posted) - settled);
}

// In the order of the counters: what moves from one to the next is counted twice for a moment, never not at
// all.
DWORD _TQThreadPoolBase::PostsInFlight() const noexcept {
    const ULONGLONG settled = m_settled.load();
    const DWORD items = Low(m_posted.load() - settled) + m_requestorItems.load();
    return items + m_droppedPackets.load() - m_missingTurns.load();
}

void _TQThreadPoolBase::AdjustBusy(bool busy) noexcept {
    constexpr ULONGLONG toWaiting = HighOne - OneBusy;
    if (busy)
        m_threadUse.fetch_sub(toWaiting);
    else
        m_threadUse.fetch_add(toWaiting);
}

void _TQThreadPoolBase::AdjustAllocated(bool add, DWORD count) noexcept {
    if (add) {
        m_allocated.fetch_add(count);
        m_threadUse.fetch_add(count * HighOne);
    } else {
        m_allocated.fetch_sub(count);
        m_threadUse.fetch_sub(count * HighOne);
    }
}

void _TQThreadPoolBase::AdjustPortObjects(bool add) {
    if (!add) {
        m_portObjects.fetch_sub(1);
        return;
    }
    if (IsStopped()) ThrowStopped();
    m_portObjects.fetch_add(1);
    try {
        RequireThread();
    } catch (...) {
        m_portObjects.fetch_sub(1);
        throw;
    }
}

bool _TQThreadPoolBase::CanStop() const {
    return PostsInFlight() == 0 && PortObjectCount() == 0;
}

void _TQThreadPoolBase::WakeThread() const noexcept {
    SetSurely(m_wakeEvent.Get());
}

DWORD _TQThreadPoolBase::IdleWaitMs() const {
    return IdleLookMs;
}

TQTimeSpan _TQThreadPoolBase::IdleTime() const {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    return m_isIdle ? m_idleTimer.Elapsed() : TQTimeSpan();
}

// Posting.

bool _TQThreadPoolBase::_PostWork(const void* data, DWORD size, DWORD requestorID) {
    // Without touching the count, which somebody who stops the pool may be waiting for.
    if (IsStopped()) ThrowStopped();
    if (!data && size != 0) TQStdExceptions::ThrowParameterInvalidError(L"_TQThreadPoolBase::_PostWork");
    try {
        if (requestorID == 0)
            PostAnonymous(data, size);
        else
            PostForRequestor(data, size, requestorID);
    } catch (...) {
        // The thread that could not be made may have posted while it began.
        if (NeedsThread()) WakeThread();
        throw;
    }
    while (NeedsThread() && Grow())
        ;
    return true;
}

void _TQThreadPoolBase::PostAnonymous(const void* data, DWORD size) {
    PacketHolder packet(_TQWin32AsynchRoot::AllocOverlapped(size, true, 0));
    if (size != 0) std::memcpy(packet->data, data, size);
    MarkAsOwn(*packet);
    const ULONGLONG posted = m_posted.fetch_add(1);
    packet->number = posted & ~StoppedPosts;
    try {
        if (posted & StoppedPosts) ThrowStopped();
        RequireThread();
        if (!PostQueuedCompletionStatus(m_port.Get(), size, 0, PlatformRecord(*packet)))
            TQSysException::ThrowLastError(PostFailed);
    } catch (...) {
        CountAsTaken(*packet);
        throw;
    }
    packet.release();
}

void _TQThreadPoolBase::PostForRequestor(const void* data, DWORD size, DWORD requestorID) {
    constexpr const wchar_t* where = L"_TQThreadPoolBase::PostForRequestor";
    WorkItemPtr item = AllocWorkData(data, size, requestorID);
    const DWORD itemID = item->itemID;
    DWORD refusal = ERROR_SUCCESS;
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        WorkQueue* const queue = RequestorQueue(requestorID);
        if (IsStopped()) {
            refusal = StoppedCode;
        } else if (!queue) {
            refusal = ERROR_NOT_FOUND;
        } else if (!queue->items.TryReserveOne() || !m_ids->ids.TryReserveOne()) {
            refusal = ERROR_OUTOFMEMORY;
        } else {
            queue->items.Push(std::move(item));
            m_ids->ids.Push(requestorID);
            m_requestorItems.fetch_add(1);
        }
    }
    if (refusal == StoppedCode) ThrowStopped();
    if (refusal == ERROR_OUTOFMEMORY) TQStdExceptions::ThrowMemAllocError(where);
    if (refusal != ERROR_SUCCESS) throw TQException(refusal, where);
    try {
        RequireThread();
        if (!PostQueuedCompletionStatus(m_port.Get(), size, 0, PlatformRecord(m_turn)))
            TQSysException::ThrowLastError(PostFailed);
    } catch (...) {
        if (TakeBackItem(requestorID, itemID)) throw;
    }
}

_TQThreadPoolBase::WorkItemPtr _TQThreadPoolBase::AllocWorkData(const void* data, DWORD size,
                                                                DWORD requestorID) {
    constexpr const wchar_t* where = L"_TQThreadPoolBase::AllocWorkData";
    WorkItemPtr item;
    DWORD itemID;
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        itemID = GetNextItemID();
        if (!m_spareItems.empty()) {
            item = std::move(m_spareItems.back());
            m_spareItems.pop_back();
        }
    }
    if (!item) item = WorkItemPtr(new (std::nothrow) PoolWorkItem);
    if (!item) TQStdExceptions::ThrowMemAllocError(where);
    item->data.Assign(static_cast<const BYTE*>(data), size);
    item->requestorID = requestorID;
    item->itemID = itemID;
    return item;
}

DWORD _TQThreadPoolBase::GetNextItemID() noexcept {
    return ++m_lastItemID;
}

// Null for a requestor that the pool does not know.
_TQThreadPoolBase::WorkQueue* _TQThreadPoolBase::RequestorQueue(DWORD requestorID) noexcept {
    const auto found = m_queues.find(requestorID);
    return found != m_queues.end() ? &found->second : nullptr;
}

// The packets of what is dropped stay in the port; whoever takes one finds less to do.

void _TQThreadPoolBase::DropItems(WorkQueue& queue) noexcept {
    const auto count = static_cast<DWORD>(queue.items.Size());
    queue.items.Clear();
    queue.dropped += count;
    m_droppedPackets.fetch_add(count);
    m_requestorItems.fetch_sub(count);
}

// Those that a thread is just taking are settled by one of the two, here or there.
void _TQThreadPoolBase::DropAnonymous() noexcept {
    ULONGLONG settled = m_settled.load();
    for (;;) {
        const ULONGLONG posted = m_posted.load() & ~StoppedPosts;
        const auto count = static_cast<DWORD>(posted - settled);
        if (count == 0) return;
        m_droppedPackets.fetch_add(count);
        m_droppedBelow = posted;
        if (m_settled.compare_exchange_strong(settled, posted)) return;
        m_droppedPackets.fetch_sub(count);
    }
}

// After the post for an item has failed: takes the item back, unless it is taken or dropped already. Another
// post's packet may have let a thread take it; then that post's item has none, and one is missing.
bool _TQThreadPoolBase::TakeBackItem(DWORD requestorID, DWORD itemID) noexcept {
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        if (WorkQueue* const queue = RequestorQueue(requestorID)) {
            auto& items = queue->items;
            auto& ids = m_ids->ids;
            // Both are looked through from the end: the entries of a requestor stand for its items in order.
            std::size_t entry = ids.Size();
            for (std::size_t i = items.Size(); i-- != 0;) {
                do
                    --entry;
                while (ids[entry] != requestorID);
                if (items[i]->itemID != itemID) continue;
                items.Erase(i);
                ids.Erase(entry);
                m_requestorItems.fetch_sub(1);
                return true;
            }
        }
        m_missingTurns.fetch_add(1);
    }
    WakeThread();
    return false;
}

// Posts packets for entries of the ID queue that have none. Whether none is missing any more.
bool _TQThreadPoolBase::PostMissingTurns() {
    while (m_missingTurns.load() != 0) {
        // Counted first: whoever takes it must find it in flight.
        m_missingTurns.fetch_sub(1);
        if (PostQueuedCompletionStatus(m_port.Get(), 0, 0, PlatformRecord(m_turn))) continue;
        m_missingTurns.fetch_add(1);
        return false;
    }
    return true;
}

bool _TQThreadPoolBase::PostThreadStop() const noexcept {
    m_stops.fetch_add(1);
    if (PostQueuedCompletionStatus(m_port.Get(), StopBytes, 0, PlatformRecord(m_stop))) return true;
    m_stops.fetch_sub(1);
    return false;
}

// Taking.

_TQThreadPoolBase::GetWorkResult _TQThreadPoolBase::_GetWork(BYTEBuf& data, DWORD ms) {
    return TakeWork(data, ms, false);
}

// A thread counts as waiting only where there is something to wait for: while work is there the counter is
// left alone.
_TQThreadPoolBase::GetWorkResult _TQThreadPoolBase::TakeWork(BYTEBuf& data, DWORD ms, bool isWaiting) {
    for (;;) {
        Packet packet;
        Taking taking;
        DWORD code = isWaiting ? DWORD{WAIT_TIMEOUT} : TakePacket(m_port.Get(), 0, packet);
        if (code == WAIT_TIMEOUT) {
            if (!std::exchange(isWaiting, false)) AdjustBusy(false);
            code = TakePacket(m_port.Get(), ms, packet);
            if (code == ERROR_SUCCESS)
                taking.Begin(*this);
            else
                AdjustBusy(true);
            if (code == WAIT_TIMEOUT) return GetWorkResult::TimeOut;
        }
        if (code != ERROR_SUCCESS) throw TQSysException(code, L"Getting asynch queue work data failed.");

        if (!IsOwn(packet)) {
            taking.End();
            HandOn(packet);
            return GetWorkResult::Packet;
        }
        if (packet.record == PlatformRecord(m_stop)) {
            m_stops.fetch_sub(1);
            if (Read(m_allocated) != 1 || PostsInFlight() == 0) return GetWorkResult::Stop;
            Sleep(StopAgainMs);
            if (!PostThreadStop()) return GetWorkResult::Stop;
        } else if (packet.record == PlatformRecord(m_turn) ? TakeTurn(data) : TakeAnonymous(packet, data)) {
            if (m_isIdle.load(std::memory_order_relaxed)) m_isIdle = false;
            return GetWorkResult::Work;
        }
    }
}

DWORD _TQThreadPoolBase::TakePacket(HANDLE port, DWORD ms, Packet& packet) noexcept {
    if (GetQueuedCompletionStatus(port, &packet.bytes, &packet.key, &packet.record, ms)) return ERROR_SUCCESS;
    const DWORD code = GetLastError();
    if (!packet.record) return code;
    packet.error = code;
    return ERROR_SUCCESS;
}

// The pool's own records carry its address in a field that the platform reads of no posted packet. Nothing is
// read of a record that comes with another key.

void _TQThreadPoolBase::MarkAsOwn(OVERLAPPED_DATA& packet) noexcept {
    PlatformRecord(packet)->hEvent = this;
}

bool _TQThreadPoolBase::IsOwn(const Packet& packet) const noexcept {
    return packet.key == 0 && packet.record && packet.record->hEvent == this;
}

void _TQThreadPoolBase::HandOn(const Packet& packet) noexcept {
    if (NeedsThread()) WakeThread();
    try {
        OnPortPacket(packet.key, packet.bytes, packet.record, packet.error);
    } catch (...) {
        ReportCaught(CallingPoolThread(), nullptr);
    }
}

void _TQThreadPoolBase::OnPortPacket(ULONGLONG, DWORD, void*, DWORD) {}

// A post that was accepted is not lost for want of memory: it waits for some, or until it is dropped.
bool _TQThreadPoolBase::TakeAnonymous(const Packet& packet, BYTEBuf& data) {
    const PacketHolder record(reinterpret_cast<OVERLAPPED_DATA*>(packet.record));
    for (bool isCopied = false, isTold = false; !isCopied && record->number >= m_droppedBelow.load();) {
        try {
            data.Assign(record->data, record->length);
            isCopied = true;
        } catch (...) {
            if (!std::exchange(isTold, true)) ReportCaught(CallingPoolThread(), nullptr);
            Sleep(TakeAgainMs);
        }
    }
    return CountAsTaken(*record);
}

// False for an anonymous item that was dropped. Its packet is not in flight any more in either case.
bool _TQThreadPoolBase::CountAsTaken(const OVERLAPPED_DATA& packet) noexcept {
    ULONGLONG settled = m_settled.load();
    do {
        if (packet.number < m_droppedBelow.load()) {
            m_droppedPackets.fetch_sub(1);
            return false;
        }
    } while (!m_settled.compare_exchange_weak(settled, settled + 1));
    return true;
}

// Takes the next item of the requestor whose turn it is; false where that was dropped. Each packet stands for
// one entry of the ID queue, so that an item keeps its place among those that were posted before and after
// it, whatever is dropped.
bool _TQThreadPoolBase::TakeTurn(BYTEBuf& data) noexcept {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    if (GetNextRequestorWork(m_ids->ids.Pop(), data)) return true;
    m_droppedPackets.fetch_sub(1);
    return false;
}

// False where the entry of the requestor stands for an item that was dropped.
bool _TQThreadPoolBase::GetNextRequestorWork(DWORD requestorID, BYTEBuf& data) noexcept {
    WorkQueue* const queue = RequestorQueue(requestorID);
    if (!queue) return false;
    if (queue->dropped != 0) {
        --queue->dropped;
        return false;
    }
    WorkItemPtr item = queue->items.Pop();
    m_requestorItems.fetch_sub(1);
    item->data.Swap(data);
    KeepSpare(std::move(item));
    return true;
}

void _TQThreadPoolBase::KeepSpare(WorkItemPtr&& item) noexcept {
    if (item->data.Capacity() > RecycledBytes) item->data.Clear();
    if (m_spareItems.size() >= KeptSpareItems) return;
    try {
        m_spareItems.push_back(std::move(item));
    } catch (const std::bad_alloc&) {
        // Then the next post makes a new one.
    }
}

// The threads.

bool _TQThreadPoolBase::NeedsThread() const {
    if (m_allocated.load() >= m_maxThreads) return false;
    const ULONGLONG use = m_threadUse.load();
    // One more where packets of others may come, which nobody counts.
    return High(use) + TakingIn(use) < PostsInFlight() + (m_portObjects.load() != 0);
}

// Sees to it that a thread takes what is about to be posted. The order matters: the post is counted before
// this looks for a thread, and a thread that retires is no longer counted before it looks for posts.
inline void _TQThreadPoolBase::RequireThread() {
    if (m_serving.load() <= 0) MakeFirstThread();
}

void _TQThreadPoolBase::MakeFirstThread() {
    do {
        if (AllocPoolThread()) continue;
        if (IsCallerBeingStarted()) return;
        WaitForSingleObject(m_startOver.Get(), INFINITE);
    } while (m_serving.load() <= 0);
}

// Whether this is called by the `OnStart` of a pool thread, which will take what it posts there.
bool _TQThreadPoolBase::IsCallerBeingStarted() {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    const TQPoolThread* const self = CallingPoolThread();
    return self && self->m_isBeingStarted;
}

// Makes one thread more, and puts that off for a while where it fails: those that there are do the work.
bool _TQThreadPoolBase::Grow() noexcept {
    if (GetTickCount64() < m_growAgainTick.load()) return false;
    try {
        return AllocPoolThread();
    } catch (...) {
        if (IsStopped()) return false;
        m_growAgainTick = GetTickCount64() + GrowAgainMs;
        ReportCaught(nullptr, nullptr);
        WakeThread();
        return false;
    }
}

// False where the pool has all the threads that it may have, and where somebody else is making one: he looks
// afterwards whether the pool needs still more.
bool _TQThreadPoolBase::AllocPoolThread() {
    if (!BeginStart()) return false;
    try {
        if (!m_hasOwnThread) Start();
        m_hasOwnThread = true;
        StartPoolThread();
    } catch (...) {
        AdjustAllocated(false, 1);
        EndStart();
        throw;
    }
    EndStart();
    return true;
}

bool _TQThreadPoolBase::BeginStart() {
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        if (!IsStopped()) {
            if (m_isStarting || m_allocated.load() >= m_maxThreads) return false;
            if (!ResetEvent(m_startOver.Get()))
                TQSysException::ThrowLastError(L"_TQThreadPoolBase::BeginStart");
            m_isStarting = true;
            AdjustAllocated(true, 1);
            return true;
        }
    }
    ThrowStopped();
}

// Under the lock: an event that is set late would tell that the next start is over.
void _TQThreadPoolBase::EndStart() noexcept {
    Insist([this] {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        m_isStarting = !SetEvent(m_startOver.Get());
        return !m_isStarting;
    });
}

void _TQThreadPoolBase::StartPoolThread() {
    constexpr const wchar_t* where = L"_TQThreadPoolBase::StartPoolThread";
    std::unique_ptr<TQPoolThread> thread(Translated(where, [&] { return AllocThread(); }));
    thread->AssignPool(this);
    thread->SetReadyForWork(true);
    std::set<TQPoolThread*> made;
    Translated(where, [&] { made.insert(thread.get()); });
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        if (!IsStopped()) {
            m_threads.merge(made);
            thread->m_isBeingStarted = true;
            ++m_threadObjects;
        }
    }
    if (!made.empty()) ThrowStopped();
    try {
        thread->Start();
    } catch (...) {
        {
            const TQThreadSynch::TQSynchLock guard(m_poolLock);
            m_threads.erase(thread.get());
        }
        DropThreadObject(std::move(thread));
        throw;
    }
    m_serving.fetch_add(1);
    bool hasRetired;
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        thread.release()->m_isBeingStarted = false;
        hasRetired = m_retired;
    }
    // One that has left already could not be deleted before.
    if (hasRetired) WakeThread();
}

void _TQThreadPoolBase::RunPoolThread(TQPoolThread* thread) {
    bool isKnown;
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        isKnown = m_threads.contains(thread);
    }
    if (!isKnown) throw TQException(ERROR_INVALID_PARAMETER, L"Thread does not belong to this pool.");
    if (!thread->IsOwnThread())
        throw TQException(ERROR_INVALID_THREAD_ID,
                          L"Pool thread can only call RunPoolThread from it's running thread.");
    bool isWaiting = true;  // as it was counted before it started
    BYTEBuf data;
    while (thread->ReadyForWork()) {
        GetWorkResult result;
        try {
            result = TakeWork(data, IdleWaitMs(), std::exchange(isWaiting, false));
        } catch (...) {
            ReportCaught(thread, nullptr);
            Sleep(TakeAgainMs);
            continue;
        }
        if (result == GetWorkResult::Work)
            RunItem(*thread, data);
        else if (result == GetWorkResult::Stop)
            break;
        else if (result == GetWorkResult::TimeOut && Retire(*thread))
            return;
    }
    if (isWaiting) AdjustBusy(true);
    m_serving.fetch_sub(1);
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        Leave(*thread);
    }
    WakeThread();
}

void _TQThreadPoolBase::RunItem(TQPoolThread& thread, BYTEBuf& data) noexcept {
    try {
        thread.OnWork(data);
    } catch (...) {
        ReportCaught(&thread, &data);
    }
    if (data.Capacity() > KeptBytes) data.Clear();
}

void _TQThreadPoolBase::ReportCaught(TQPoolThread* thread, const BYTEBuf* work) noexcept {
    unsigned int code = UnknownExceptionCode;
    TQString message;
    try {
        throw;
    } catch (const _TQWin32Exception& e) {
        code = e.ErrCode();
        message = MessageOf(e);
    } catch (const std::exception& e) {
        message = Described(HandlerContext, e.what());
    } catch (...) {
        message = Described(HandlerContext, nullptr);
    }
    try {
        ReportError({.code = code, .message = message.c_str(), .thread = thread, .work = work});
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(L"_TQThreadPoolBase::ReportError");
    }
}

// What a thread does that waited in vain: true where it has left the pool.
bool _TQThreadPoolBase::Retire(TQPoolThread& thread) {
    const TQTimeSpan idle = IdleTime();
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        if (m_allocated.load() <= m_minThreads) {
            if (!m_isIdle) {
                m_idleTimer.Restart();
                m_isIdle = true;
                return false;
            }
            if (idle.Milliseconds() <= KeepIdleMs) return false;
        }
        m_serving.fetch_sub(1);
        if (!CanStop()) {
            m_serving.fetch_add(1);
            return false;
        }
        Leave(thread);
    }
    WakeThread();
    return true;
}

void _TQThreadPoolBase::Leave(TQPoolThread& thread) noexcept {
    m_threads.erase(&thread);
    AdjustBusy(false);
    AdjustAllocated(false, 1);
    thread.m_nextRetired = std::exchange(m_retired, &thread);
}

// The pool's own thread.

unsigned int _TQThreadPoolBase::RunWork(BYTEBuf&) {
    const HANDLE events[] = {StopEvent().Handle(), m_wakeEvent.Get()};
    DWORD ms = INFINITE;
    while (!IsStopped()) {
        if (WaitForMultipleObjects(2, events, FALSE, ms) == WAIT_FAILED) Sleep(PortPassMs);
        if (IsStopped()) break;
        try {
            OnWorkThreadWake();
        } catch (...) {
            ReportCaught(nullptr, nullptr);
        }
        ms = !PostMissingTurns() ? PortPassMs : NeedsThread() ? GrowAgainMs : INFINITE;
    }
    EndPoolThreads();
    return 0;
}

void _TQThreadPoolBase::OnWorkThreadWake() {
    DeleteRetired();
    while (NeedsThread() && Grow())
        ;
}

void _TQThreadPoolBase::DeleteRetired() {
    for (;;) {
        TQPoolThread* thread;
        {
            const TQThreadSynch::TQSynchLock guard(m_poolLock);
            thread = m_retired;
            while (thread && thread->m_isBeingStarted)
                thread = thread->m_nextRetired;
            if (!thread) return;
        }
        AwaitSurely({thread->ThreadHandle()});
        std::unique_ptr<TQPoolThread> ended;
        {
            const TQThreadSynch::TQSynchLock guard(m_poolLock);
            TQPoolThread** link = &m_retired;
            while (*link != thread)
                link = &(*link)->m_nextRetired;
            *link = thread->m_nextRetired;
            ended.reset(thread);
        }
        DropThreadObject(std::move(ended));
    }
}

void _TQThreadPoolBase::DropThreadObject(std::unique_ptr<TQPoolThread> thread) noexcept {
    const bool wasStopping = thread->m_isStoppingPool;
    thread.reset();
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        --m_threadObjects;
        if (wasStopping) --m_stoppers;
    }
    TellStoppers();
}

// Of a stopped pool: no thread is added any more, so what is true once stays true.
void _TQThreadPoolBase::TellStoppers() noexcept {
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        if (!IsStopped() || m_threadObjects != m_stoppers) return;
    }
    SetSurely(m_othersGone.Get());
}

void _TQThreadPoolBase::Stop() {
    m_posted.fetch_or(StoppedPosts);
    ClearAll();
    TQThread::Stop();
}

void _TQThreadPoolBase::EndPoolThreads() {
    for (;;) {
        DeleteRetired();
        std::size_t live;
        {
            const TQThreadSynch::TQSynchLock guard(m_poolLock);
            if (m_threadObjects == 0) break;
            live = m_threads.size();
        }
        while (m_stops.load() < live && PostThreadStop())
            ;
        WaitForSingleObject(m_wakeEvent.Get(), PortPassMs);
    }
    _CleanUpPort(m_port.Get());
}

// Takes everything out of the port, up to what posters who were inside their post are still about to add.
void _TQThreadPoolBase::_CleanUpPort(void* port) {
    for (;;) {
        const bool isLast = PostsInFlight() == 0 && m_stops.load() == 0;
        Packet packet;
        if (const DWORD code = TakePacket(port, isLast ? 0 : PortPassMs, packet)) {
            if (isLast) return;
            if (code != WAIT_TIMEOUT) Sleep(PortPassMs);
        } else if (!IsOwn(packet)) {
            HandOn(packet);
        } else if (packet.record == PlatformRecord(m_stop)) {
            m_stops.fetch_sub(1);
        } else {
            BYTEBuf dropped;
            packet.record == PlatformRecord(m_turn) ? TakeTurn(dropped) : TakeAnonymous(packet, dropped);
        }
    }
}

TQPoolThread* _TQThreadPoolBase::CallingPoolThread() {
    const TQThreadSynch::TQSynchLock guard(m_poolLock);
    for (TQPoolThread* thread : m_threads)
        if (thread->IsOwnThread()) return thread;
    for (TQPoolThread* thread = m_retired; thread; thread = thread->m_nextRetired)
        if (thread->IsOwnThread()) return thread;
    return nullptr;
}

void _TQThreadPoolBase::AwaitOtherPoolThreads(TQPoolThread& self) {
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        if (!self.m_isStoppingPool) ++m_stoppers;
        self.m_isStoppingPool = true;
    }
    TellStoppers();
    AwaitSurely({m_othersGone.Get()});
}

void _TQThreadPoolBase::CloseUp() noexcept {
    if (!m_port) return;
    const _TQLastErrorKeeper keeper;
    StopThreads();
    m_callOnExit.reset();
    if (Platform::AreOtherThreadsGone()) return;
    _CleanUpPort(m_port.Get());
    m_port.Close();
    m_wakeEvent.Close();
    m_startOver.Close();
    m_othersGone.Close();
    ReleaseMemory();
}

// Of a pool that may have had more items at once than are kept to be used again.
void _TQThreadPoolBase::ReleaseMemory() noexcept {
    std::vector<TQSPtrCont<WorkItemPtr>> spare;
    ULONGLONG posted = m_posted.load() & ~StoppedPosts;
    {
        const TQThreadSynch::TQSynchLock guard(m_poolLock);
        spare.swap(m_spareItems);
        posted += m_lastItemID;
    }
    if (posted <= KeptSpareItems) return;
    spare = {};
    _TQWin32AsynchRoot::ReleaseFree();
}

void _TQThreadPoolBase::__ProcessOnExit(void* pool) {
    static_cast<_TQThreadPoolBase*>(pool)->StopThreads();
}

void TQThreadPoolExceptionHandler::ReportException(DWORD, unsigned int code, const wchar_t* message,
                                                   const void*, ULONGLONG, const void*, ULONGLONG) noexcept {
    try {
        TQException failure(code, message);
        failure.SetAction(HandlerContext);
        if (code != UnknownExceptionCode && code < FirstStructuredCode) {
            failure.LogEvent(nullptr, TQEventLog::LibrarySource, TQEventLog::CaughtExceptionEvent,
                             CaughtExceptionCategory);
            return;
        }
        STLString block;
        failure.AssembleLogOutput(nullptr, block);
        TQCoreException::LogUnhandled(TQEventLog::LibrarySource, TQEventLog::UnhandledExceptionEvent,
                                      TQEventLog::UnhandledExceptionCategory, block.c_str());
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(HandlerContext);
    }
}

}  // namespace Quellan::Corvel
