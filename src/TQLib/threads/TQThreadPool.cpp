#include "TQLib/threads/TQThreadPool.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/TQLib.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/platform/ProcessEnd.h"
#include "TQLib/text/memory/internal/Translated.h"
#include "TQLib/threads/internal/ExceptionMessage.h"
#include "TQLib/threads/internal/GuardedStep.h"
#include "TQLib/threads/internal/PoolCounters.h"
#include "TQLib/threads/internal/PoolQueue.h"
#include "TQLib/threads/internal/PoolThreads.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr DWORD MaxThreadsOfAPool = 16;
constexpr ULONGLONG MaxThreadsOfAProcessor = 510;

constexpr DWORD IdleLookMs = 100'000;
constexpr DWORD StopAgainMs = 50;     // between stop packets that come before the last posts
constexpr DWORD TakeAgainMs = 50;     // after a failure to take work
constexpr DWORD PortPassMs = 50;      // until what is missing in the port is looked for again
constexpr DWORD GrowAgainMs = 1'000;  // after a failure to make a thread

constexpr unsigned int FirstStructuredCode = 0xC0000000;

constexpr const wchar_t* HandlerContext = L"Processing thread pool work";

constexpr ULONGLONG KeptBytes = 64 * 1024;  // of a thread's buffer from one item to the next

}  // namespace

// What a pool is made of, and what joins the parts: how a thread takes and does an item, and whom failures
// are told.
class _TQThreadPoolImpl {
  public:
    using GetWorkResult = _TQThreadPoolBase::GetWorkResult;

    _TQThreadPoolImpl(_TQThreadPoolBase& owner, DWORD maxThreads)
        : queue(&owner), threads(owner, queue, counters, maxThreads), m_pool(owner) {}

    PoolCounters counters;
    PoolQueue queue;
    PoolThreads threads;
    std::optional<TQLibCallOnExit> callOnExit;

    // True once it is queued.
    bool Post(const void* data, DWORD size, DWORD requestorID) {
        try {
            queue.Post(data, size, requestorID);
        } catch (...) {
            WakeForThreads();
            throw;
        }
        Grow();
        return true;
    }
    TQ_NOINLINE bool PostToNobody(const void* data, DWORD size, DWORD requestorID);

    // Makes the threads that are missing.
    void Grow() noexcept {
        while (threads.NeedsThread() && GrowByOne())
            ;
    }

    // Waits as long as `idleMs` says. `isWaiting`: the thread counts as waiting already.
    template <class IdleMs>
    GetWorkResult TakeWork(ItemBuffer& data, IdleMs idleMs, bool isWaiting);
    // Inside a catch clause. Null for a thread that could not be made, and where there is no item.
    void ReportCaught(TQPoolThread* thread, const BYTEBuf* work) noexcept;

    // Takes everything out of the port of a stopped pool, up to what posters who were inside their post are
    // still about to add.
    void _CleanUpPort();
    static void __ProcessOnExit(void* pool) { static_cast<_TQThreadPoolBase*>(pool)->StopThreads(); }

  private:
    class Taking;

    void WakeForThreads() noexcept {
        if (threads.NeedsThread()) threads.Wake();
    }
    bool GrowByOne() noexcept;
    bool TakeItem(PoolQueue::Packet& packet, ItemBuffer& data) noexcept;
    void HandOn(const PoolQueue::Packet& packet) noexcept;

    _TQThreadPoolBase& m_pool;
    std::atomic<ULONGLONG> m_growAgainTick = 0;
};

// A thread that has waited, from where it counts as busy to where its item counts as taken. A post in this
// time needs no thread for that item; it relies on this one for its own, which sees to it that there is
// another one.
class _TQThreadPoolImpl::Taking {
  public:
    explicit Taking(_TQThreadPoolImpl& pool) noexcept : m_pool(pool) {}
    Taking(const Taking&) = delete;
    Taking& operator=(const Taking&) = delete;
    ~Taking() { End(); }

    // It counts as taking.
    void Begin() noexcept { m_isTaking = true; }
    void End() noexcept {
        if (!std::exchange(m_isTaking, false)) return;
        m_pool.counters.EndTaking();
        m_pool.WakeForThreads();
    }

  private:
    _TQThreadPoolImpl& m_pool;
    bool m_isTaking = false;
};

bool _TQThreadPoolImpl::PostToNobody(const void* data, DWORD size, DWORD requestorID) {
    try {
        threads.RequireThread();
    } catch (...) {
        // The thread that could not be made may have posted while it began.
        WakeForThreads();
        throw;
    }
    return Post(data, size, requestorID);
}

// Puts further threads off for a while where one can't be made: those that there are do the work.
bool _TQThreadPoolImpl::GrowByOne() noexcept {
    if (GetTickCount64() < m_growAgainTick.load()) return false;
    try {
        return threads.AllocPoolThread();
    } catch (...) {
        if (queue.IsStopped()) return false;
        m_growAgainTick = GetTickCount64() + GrowAgainMs;
        ReportCaught(nullptr, nullptr);
        threads.Wake();
        return false;
    }
}

// A thread counts as waiting only where there is something to wait for: while work is there the counter is
// left alone.
template <class IdleMs>
inline _TQThreadPoolImpl::GetWorkResult _TQThreadPoolImpl::TakeWork(ItemBuffer& data, IdleMs idleMs,
                                                                    bool isWaiting) {
    for (;;) {
        PoolQueue::Packet packet;
        DWORD code = isWaiting ? DWORD{WAIT_TIMEOUT} : queue.Take(packet, data);
        if (code == ERROR_SUCCESS && packet.kind == PoolQueue::Kind::Taken) [[likely]] {
            threads.EndIdleTime();
            return GetWorkResult::Work;
        }
        Taking taking(*this);
        if (code == WAIT_TIMEOUT) {
            if (!std::exchange(isWaiting, false)) counters.AdjustBusy(false);
            code = queue.Await(idleMs(), packet, data, counters);
            if (code == ERROR_SUCCESS)
                taking.Begin();
            else
                counters.AdjustBusy(true);
            if (code == WAIT_TIMEOUT) return GetWorkResult::TimeOut;
        }
        if (code != ERROR_SUCCESS) throw TQSysException(code, L"Getting asynch queue work data failed.");

        switch (packet.kind) {
            case PoolQueue::Kind::Foreign:
                taking.End();
                HandOn(packet);
                return GetWorkResult::Packet;
            case PoolQueue::Kind::Stop:
                if (counters.Allocated() != 1 || queue.InFlight() == 0) return GetWorkResult::Stop;
                Sleep(StopAgainMs);
                if (!queue.PostThreadStop()) return GetWorkResult::Stop;
                break;
            case PoolQueue::Kind::Item:
                if (!TakeItem(packet, data)) break;
                [[fallthrough]];
            case PoolQueue::Kind::Taken:
                threads.EndIdleTime();
                return GetWorkResult::Work;
        }
    }
}

// A post that was accepted is not lost for want of memory: it waits for some, or until it is dropped.
bool _TQThreadPoolImpl::TakeItem(PoolQueue::Packet& packet, ItemBuffer& data) noexcept {
    for (bool isTold = false;;) {
        try {
            return queue.TakeItem(packet, data);
        } catch (...) {
            if (!std::exchange(isTold, true)) ReportCaught(threads.Calling(), nullptr);
        }
        Sleep(TakeAgainMs);
    }
}

void _TQThreadPoolImpl::HandOn(const PoolQueue::Packet& packet) noexcept {
    WakeForThreads();
    try {
        m_pool.OnPortPacket(packet.key, packet.bytes, packet.record, packet.error);
    } catch (...) {
        ReportCaught(threads.Calling(), nullptr);
    }
}

void _TQThreadPoolImpl::ReportCaught(TQPoolThread* thread, const BYTEBuf* work) noexcept {
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
        m_pool.ReportError({.code = code, .message = message.c_str(), .thread = thread, .work = work});
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(L"_TQThreadPoolBase::ReportError");
    }
}

void _TQThreadPoolImpl::_CleanUpPort() {
    ItemBuffer none;
    for (;;) {
        const bool isLast = queue.InFlight() == 0 && queue.Stops() == 0;
        PoolQueue::Packet packet;
        if (queue.Take(packet, none) != ERROR_SUCCESS) {
            if (isLast) return;
            Sleep(PortPassMs);
        } else if (packet.kind == PoolQueue::Kind::Foreign) {
            HandOn(packet);
        } else if (packet.kind == PoolQueue::Kind::Item) {
            // All items were dropped: no memory is needed.
            static_cast<void>(queue.TakeItem(packet, none));
        }
    }
}

_TQThreadPoolBase::ThreadLimits _TQThreadPoolBase::LimitsFor(DWORD processors, DWORD requested) noexcept {
    const DWORD p = std::max<DWORD>(processors, 1);
    if (requested < 2) return {p, 2 * p};
    // On every machine the last of the three is below the one before it; it is meant to be.
    return {p, static_cast<DWORD>(
                   std::min<ULONGLONG>({requested, MaxThreadsOfAProcessor * p, MaxThreadsOfAPool}))};
}

_TQThreadPoolBase::_TQThreadPoolBase(const void* data, ULONGLONG size, DWORD maxThreads)
    : TQThread(data, size), m_impl(Translated(L"_TQThreadPoolBase::_TQThreadPoolBase", [&] {
          return std::make_unique<_TQThreadPoolImpl>(*this, maxThreads);
      })) {
    Translated(L"_TQThreadPoolBase::_TQThreadPoolBase",
               [&] { m_impl->callOnExit.emplace(_TQThreadPoolImpl::__ProcessOnExit, this); });
}

_TQThreadPoolBase::~_TQThreadPoolBase() {
    CloseUp();
}

bool _TQThreadPoolBase::AddWork(const void* data, DWORD size, DWORD requestorID) {
    return _PostWork(data, size, requestorID);
}

DWORD _TQThreadPoolBase::GetNewRequestorID() {
    return m_impl->queue.NewRequestor();
}

void _TQThreadPoolBase::ReleaseRequestorID(DWORD requestorID) {
    m_impl->queue.ReleaseRequestor(requestorID);
}

void _TQThreadPoolBase::ClearRequestorItems(DWORD requestorID) {
    m_impl->queue.ClearRequestor(requestorID);
}

void _TQThreadPoolBase::ClearAll() {
    m_impl->queue.ClearAll();
}

void _TQThreadPoolBase::StopThreads() {
    if (Platform::AreOtherThreadsGone()) return;  // and the pool's with them
    const _TQLastErrorKeeper keeper;
    Stop();
    if (IsOwnThread() || m_impl->threads.AwaitOthers()) return;
    // Whoever is making the pool's own thread may not know yet that the pool is stopped.
    m_impl->threads.AwaitStarts();
    EndThread();
}

DWORD _TQThreadPoolBase::WorkCount() const {
    return m_impl->queue.Items();
}

DWORD _TQThreadPoolBase::ThreadsWaiting() const {
    return m_impl->counters.Waiting();
}

DWORD _TQThreadPoolBase::ThreadsBusy() const {
    return m_impl->counters.Busy();
}

DWORD _TQThreadPoolBase::ThreadsAllocated() const {
    return m_impl->counters.Allocated();
}

DWORD _TQThreadPoolBase::MaxThreads() const {
    return m_impl->threads.Max();
}

bool _TQThreadPoolBase::_PostWork(const void* data, DWORD size, DWORD requestorID) {
    _TQThreadPoolImpl& pool = *m_impl;
    // Without touching the count, which somebody who stops the pool may be waiting for.
    if (pool.queue.IsStopped()) PoolQueue::ThrowStopped();
    if (!data && size != 0) TQStdExceptions::ThrowParameterInvalidError(L"_TQThreadPoolBase::_PostWork");
    return pool.counters.ServesNobody() ? pool.PostToNobody(data, size, requestorID)
                                        : pool.Post(data, size, requestorID);
}

_TQThreadPoolBase::GetWorkResult _TQThreadPoolBase::_GetWork(BYTEBuf& data, DWORD ms) {
    ItemBuffer item;
    item.Swap(data);
    const GetWorkResult result = m_impl->TakeWork(
        item, [ms] { return ms; }, false);
    data.Swap(item);
    return result;
}

_TQThreadPoolBase::WorkItemPtr _TQThreadPoolBase::AllocWorkData(const void* data, DWORD size,
                                                                DWORD requestorID) {
    return m_impl->queue.AllocWorkData(data, size, requestorID);
}

void _TQThreadPoolBase::AdjustBusy(bool busy) noexcept {
    m_impl->counters.AdjustBusy(busy);
}

void _TQThreadPoolBase::AdjustAllocated(bool add, DWORD count) noexcept {
    m_impl->counters.AdjustAllocated(add, count);
}

void _TQThreadPoolBase::AdjustPortObjects(bool add) {
    if (add && m_impl->queue.IsStopped()) PoolQueue::ThrowStopped();
    m_impl->counters.AdjustPortObjects(add);
    if (!add) return;
    try {
        m_impl->threads.RequireThread();
    } catch (...) {
        m_impl->counters.AdjustPortObjects(false);
        throw;
    }
}

void _TQThreadPoolBase::OnPortPacket(ULONGLONG, DWORD, void*, DWORD) {}

bool _TQThreadPoolBase::CanStop() const {
    return m_impl->threads.CanStop();
}

TQPoolThread* _TQThreadPoolBase::CallingPoolThread() {
    return m_impl->threads.Calling();
}

void _TQThreadPoolBase::WakeThread() const noexcept {
    m_impl->threads.Wake();
}

void _TQThreadPoolBase::CloseUp() noexcept {
    if (m_impl->queue.IsClosed()) return;
    const _TQLastErrorKeeper keeper;
    StopThreads();
    m_impl->callOnExit.reset();
    if (Platform::AreOtherThreadsGone()) return;
    m_impl->_CleanUpPort();
    m_impl->threads.Close();
    m_impl->queue.Close();
}

DWORD _TQThreadPoolBase::IdleWaitMs() const {
    return IdleLookMs;
}

TQTimeSpan _TQThreadPoolBase::IdleTime() const {
    return m_impl->threads.IdleTime();
}

HANDLE _TQThreadPoolBase::Port() const noexcept {
    return m_impl->queue.Port();
}

// The pool's own thread.

unsigned int _TQThreadPoolBase::RunWork(BYTEBuf&) {
    const HANDLE events[] = {StopEvent().Handle(), m_impl->threads.WakeEvent()};
    DWORD ms = INFINITE;
    while (!m_impl->queue.IsStopped()) {
        if (WaitForMultipleObjects(2, events, FALSE, ms) == WAIT_FAILED) Sleep(PortPassMs);
        if (m_impl->queue.IsStopped()) break;
        try {
            OnWorkThreadWake();
        } catch (...) {
            m_impl->ReportCaught(nullptr, nullptr);
        }
        ms = m_impl->threads.NeedsThread() ? GrowAgainMs : INFINITE;
    }
    m_impl->threads.EndAll();
    m_impl->_CleanUpPort();
    return 0;
}

void _TQThreadPoolBase::OnWorkThreadWake() {
    m_impl->threads.DeleteRetired();
    m_impl->Grow();
}

void _TQThreadPoolBase::Stop() {
    m_impl->queue.Stop();
    TQThread::Stop();
}

// Those for its work.

void _TQThreadPoolBase::RunPoolThread(TQPoolThread* thread) {
    PoolThreads& threads = m_impl->threads;
    if (!threads.Has(*thread))
        throw TQException(ERROR_INVALID_PARAMETER, L"Thread does not belong to this pool.");
    if (!thread->IsOwnThread())
        throw TQException(ERROR_INVALID_THREAD_ID,
                          L"Pool thread can only call RunPoolThread from it's running thread.");
    bool isWaiting = true;  // as it was counted before it started
    ItemBuffer data;
    while (thread->ReadyForWork()) {
        GetWorkResult result;
        try {
            result = m_impl->TakeWork(
                data, [this] { return IdleWaitMs(); }, std::exchange(isWaiting, false));
        } catch (...) {
            m_impl->ReportCaught(thread, nullptr);
            Sleep(TakeAgainMs);
            continue;
        }
        if (result == GetWorkResult::Stop) break;
        if (result == GetWorkResult::TimeOut && threads.Retire(*thread, IdleTime())) return;
        if (result != GetWorkResult::Work) continue;
        try {
            thread->OnWork(data);
        } catch (...) {
            m_impl->ReportCaught(thread, &data);
        }
        if (data.Room() > KeptBytes) data.Clear();
    }
    if (isWaiting) m_impl->counters.AdjustBusy(true);
    threads.Leave(*thread);
}

void TQThreadPoolExceptionHandler::ReportException(DWORD, unsigned int code, const wchar_t* message,
                                                   const void*, ULONGLONG, const void*, ULONGLONG) noexcept {
    try {
        TQException failure(code, message);
        failure.SetAction(HandlerContext);
        if (code != UnknownExceptionCode && code < FirstStructuredCode) return LogAsCaught(failure, nullptr);
        STLString block;
        failure.AssembleLogOutput(nullptr, block);
        LogAsUnhandled(block.c_str());
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(HandlerContext);
    }
}

}  // namespace Quellan::Corvel
