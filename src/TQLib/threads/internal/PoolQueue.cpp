#include "TQLib/threads/internal/PoolQueue.h"

#include "TQLib/threads/internal/PoolThreads.h"

#include <cstring>
#include <memory>
#include <new>

namespace Quellan::Corvel {

namespace {

constexpr unsigned int StoppedCode = 0x80000015;

constexpr const wchar_t* PostFailed = L"Posting of the thread pool work failed.";

constexpr ULONGLONG KeptRecords = 65'536;

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
    if (m_items.AllPosted() > KeptRecords) _TQWin32AsynchRoot::ReleaseFree();
}

DWORD PoolQueue::NewRequestor() {
    DWORD id;
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        id = m_requestors.Add();
    }
    if (id == 0) TQStdExceptions::ThrowMemAllocError(L"_TQThreadPoolBase::GetNewRequestorID");
    return id;
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

void PoolQueue::Post(const void* data, DWORD size, DWORD requestorID, PoolThreads& threads) {
    RecordHolder record(_TQWin32AsynchRoot::AllocOverlapped(size, true, 0));
    if (size != 0) std::memcpy(record->data, data, size);
    Count(*record, requestorID);
    try {
        if (IsStopped()) ThrowStopped();
        threads.RequireThread();
        if (!m_port.PostItem(*record, size)) TQSysException::ThrowLastError(PostFailed);
    } catch (...) {
        Settle(*record);
        throw;
    }
    record.release();
}

void PoolQueue::Count(Record& record, DWORD requestorID) {
    if (requestorID == 0) {
        record.number = m_items.Post();
        return;
    }
    WorkQueue* const queue = m_requestors.RequestorQueue(requestorID);
    DWORD epoch = 0;
    // Before the queue counts it: who clears that finds no more items than were posted.
    m_items.PostForRequestor();
    if (!queue || !queue->Post(requestorID, epoch)) {
        m_items.SettleForRequestor();
        throw TQException(ERROR_NOT_FOUND, L"_TQThreadPoolBase::PostForRequestor");
    }
    record.number = epoch;
    PoolPort::SetQueue(record, queue);
}

PoolQueue::WorkItemPtr PoolQueue::AllocWorkData(const void* data, DWORD size, DWORD requestorID) {
    WorkItemPtr item(new (std::nothrow) _TQThreadPoolBase::PoolWorkItem);
    if (!item) TQStdExceptions::ThrowMemAllocError(L"_TQThreadPoolBase::AllocWorkData");
    item->data.Assign(static_cast<const BYTE*>(data), size);
    item->requestorID = requestorID;
    item->itemID = GetNextItemID();
    return item;
}

// Taking.

bool PoolQueue::TakeItem(const Packet& packet, BYTEBuf& data) {
    Record* const record = packet.Item();
    if (!IsDropped(*record)) data.Assign(record->data, record->length);
    const RecordHolder done(record);
    return Settle(*record);
}

bool PoolQueue::IsDropped(Record& record) const noexcept {
    const WorkQueue* const queue = PoolPort::QueueOf(record);
    return queue ? queue->IsDropped(static_cast<DWORD>(record.number)) : m_items.IsDropped(record.number);
}

bool PoolQueue::Settle(Record& record) noexcept {
    WorkQueue* const queue = PoolPort::QueueOf(record);
    if (!queue) return m_items.Settle(record.number);
    const bool isTaken = queue->Settle(static_cast<DWORD>(record.number));
    if (isTaken)
        m_items.SettleForRequestor();
    else
        m_items.SettleDropped();
    return isTaken;
}

}  // namespace Quellan::Corvel
