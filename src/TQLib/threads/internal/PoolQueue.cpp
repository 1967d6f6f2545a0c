#include "TQLib/threads/internal/PoolQueue.h"

#include "TQLib/threads/internal/PoolThreads.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

namespace Quellan::Corvel {

namespace {

constexpr unsigned int StoppedCode = 0x80000015;

constexpr const wchar_t* PostFailed = L"Posting of the thread pool work failed.";

struct RecordFree {
    void operator()(PoolPort::Record* record) const noexcept { _TQWin32AsynchRoot::FreeOverlapped(record); }
};
using RecordHolder = std::unique_ptr<PoolPort::Record, RecordFree>;

}  // namespace

void PoolQueue::ThrowStopped() {
    throw TQException(StoppedCode,
                      L"Thread pool has been stopped - no further work can be done on the pool.");
}

void PoolQueue::Stop() {
    m_items.Stop();
    ClearAll();
}

// Of a pool that may have had more items at once than are kept to be used again the memory goes back to the
// system.
void PoolQueue::Close() noexcept {
    m_port.Close();
    RequestorQueues::SpareItems spares;
    ULONGLONG posted = m_items.Posted();
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_requestors.GiveSpares(spares);
        posted += m_requestors.LastItemID();
    }
    if (posted <= RequestorQueues::KeptSpareItems) return;
    spares = {};
    _TQWin32AsynchRoot::ReleaseFree();
}

DWORD PoolQueue::NewRequestor() {
    auto queue = RequestorQueues::NewQueue();
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_requestors.Add(std::move(queue));
}

// The packets of what is dropped stay in the port; whoever takes one finds less to do.

void PoolQueue::ReleaseRequestor(DWORD requestorID) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_items.DropForRequestors(m_requestors.Release(requestorID));
}

void PoolQueue::ClearRequestor(DWORD requestorID) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_items.DropForRequestors(m_requestors.Clear(requestorID));
}

void PoolQueue::ClearAll() {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    m_items.DropForRequestors(m_requestors.ClearAll());
    m_items.DropAnonymous();
}

// Posting.

void PoolQueue::PostAnonymous(const void* data, DWORD size, PoolThreads& threads) {
    RecordHolder record(_TQWin32AsynchRoot::AllocOverlapped(size, true, 0));
    if (size != 0) std::memcpy(record->data, data, size);
    record->number = m_items.Post();
    try {
        if (IsStopped()) ThrowStopped();
        threads.RequireThread();
        if (!m_port.PostItem(*record, size)) TQSysException::ThrowLastError(PostFailed);
    } catch (...) {
        m_items.Settle(record->number);
        throw;
    }
    record.release();
}

void PoolQueue::PostForRequestor(const void* data, DWORD size, DWORD requestorID, PoolThreads& threads) {
    constexpr const wchar_t* where = L"_TQThreadPoolBase::PostForRequestor";
    WorkItemPtr item = AllocWorkData(data, size, requestorID);
    const DWORD itemID = item->itemID;
    DWORD refusal = StoppedCode;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        if (!IsStopped()) {
            refusal = m_requestors.Push(std::move(item), requestorID);
            if (refusal == ERROR_SUCCESS) m_items.PostForRequestor();
        }
    }
    if (refusal == StoppedCode) ThrowStopped();
    if (refusal == ERROR_OUTOFMEMORY) TQStdExceptions::ThrowMemAllocError(where);
    if (refusal != ERROR_SUCCESS) throw TQException(refusal, where);
    try {
        threads.RequireThread();
        if (!m_port.PostTurn(size)) TQSysException::ThrowLastError(PostFailed);
    } catch (...) {
        if (TakeBackItem(requestorID, itemID)) throw;
        threads.Wake();
    }
}

PoolQueue::WorkItemPtr PoolQueue::AllocWorkData(const void* data, DWORD size, DWORD requestorID) {
    WorkItemPtr item;
    DWORD itemID;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        itemID = m_requestors.GetNextItemID();
        item = m_requestors.TakeSpare();
    }
    if (!item) item = WorkItemPtr(new (std::nothrow) _TQThreadPoolBase::PoolWorkItem);
    if (!item) TQStdExceptions::ThrowMemAllocError(L"_TQThreadPoolBase::AllocWorkData");
    item->data.Assign(static_cast<const BYTE*>(data), size);
    item->requestorID = requestorID;
    item->itemID = itemID;
    return item;
}

// After the post for an item has failed: takes the item back, unless it is taken or dropped already. Another
// post's packet may have let a thread take it; then that post's item has none, and one is missing.
bool PoolQueue::TakeBackItem(DWORD requestorID, DWORD itemID) noexcept {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    const bool isBack = m_requestors.TakeBack(requestorID, itemID);
    if (isBack)
        m_items.SettleForRequestor();
    else
        m_items.AdjustMissingTurns(true);
    return isBack;
}

bool PoolQueue::PostMissingTurns() noexcept {
    while (m_items.MissingTurns() != 0) {
        // Counted first: whoever takes it must find it in flight.
        m_items.AdjustMissingTurns(false);
        if (m_port.PostTurn(0)) continue;
        m_items.AdjustMissingTurns(true);
        return false;
    }
    return true;
}

// Taking.

bool PoolQueue::TakeAnonymous(const Packet& packet, BYTEBuf& data) {
    PoolPort::Record* const record = packet.Item();
    if (!m_items.IsDropped(record->number)) data.Assign(record->data, record->length);
    const RecordHolder done(record);
    return m_items.Settle(record->number);
}

bool PoolQueue::TakeTurn(BYTEBuf& data) noexcept {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    const bool isTaken = m_requestors.TakeTurn(data);
    if (isTaken)
        m_items.SettleForRequestor();
    else
        m_items.SettleDropped();
    return isTaken;
}

}  // namespace Quellan::Corvel
