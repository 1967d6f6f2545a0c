#include "TQLib/threads/internal/PoolQueue.h"

#include "TQLib/threads/internal/PoolThreads.h"

#include <new>

namespace Quellan::Corvel {

namespace {

constexpr unsigned int StoppedCode = 0x80000015;

constexpr const wchar_t* PostFailed = L"Posting of the thread pool work failed.";

constexpr ULONGLONG KeptRecords = 65'536;

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
    const ItemTag item = Count(requestorID);
    try {
        if (IsStopped()) ThrowStopped();
        threads.RequireThread();
        if (const DWORD code = m_port.PostItem(item, data, size)) throw TQSysException(code, PostFailed);
    } catch (...) {
        Settle(item);
        throw;
    }
}

ItemTag PoolQueue::Count(DWORD requestorID) {
    if (requestorID == 0) return {.queue = nullptr, .number = m_items.Post()};
    WorkQueue* const queue = m_requestors.RequestorQueue(requestorID);
    DWORD epoch = 0;
    // Before the queue counts it: who clears that finds no more items than were posted.
    m_items.PostForRequestor();
    if (!queue || !queue->Post(requestorID, epoch)) {
        m_items.SettleForRequestor();
        throw TQException(ERROR_NOT_FOUND, L"_TQThreadPoolBase::PostForRequestor");
    }
    return {.queue = queue, .number = epoch};
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

bool PoolQueue::TakeItem(Packet& packet, BYTEBuf& data) {
    if (!IsDropped(packet.tag)) data.Assign(packet.Data(), packet.size);
    packet.Free();
    return Settle(packet.tag);
}

bool PoolQueue::IsDropped(const ItemTag& item) const noexcept {
    return item.queue ? item.queue->IsDropped(static_cast<DWORD>(item.number))
                      : m_items.IsDropped(item.number);
}

bool PoolQueue::Settle(const ItemTag& item) noexcept {
    if (!item.queue) return m_items.Settle(item.number);
    const bool isTaken = item.queue->Settle(static_cast<DWORD>(item.number));
    if (isTaken)
        m_items.SettleForRequestor();
    else
        m_items.SettleDropped();
    return isTaken;
}

}  // namespace Quellan::Corvel
