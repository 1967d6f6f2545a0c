#include "TQLib/threads/internal/PoolQueue.h"

#include "TQLib/core/TQException.h"

#include <new>

namespace Quellan::Corvel {

namespace {

constexpr unsigned int StoppedCode = 0x80000015;

constexpr ULONGLONG KeptRecords = 65'536;

}  // namespace

void PoolQueue::ThrowStopped() {
    throw TQException(StoppedCode,
                      L"Thread pool has been stopped - no further work can be done on the pool.");
}

void PoolQueue::Stop() {
    m_port.Stop();
    ClearAll();
}

// Of a pool that may have had more items at once than are kept to be used again the memory goes back to the
// system.
void PoolQueue::Close() noexcept {
    const ULONGLONG posted = m_port.AllPosted();
    m_port.Close();
    if (posted > KeptRecords) _TQWin32AsynchRoot::ReleaseFree();
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
    Drop(m_requestors.Release(requestorID));
}

void PoolQueue::ClearRequestor(DWORD requestorID) {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    Drop(m_requestors.Clear(requestorID));
}

void PoolQueue::ClearAll() {
    {
        const TQThreadSynch::TQSynchLock guard(m_lock);
        Drop(m_requestors.ClearAll());
    }
    if (!IsClosed()) m_port.DropAnonymous();
}

void PoolQueue::ThrowRefused(DWORD code) {
    if (code == ERROR_OPERATION_ABORTED) ThrowStopped();
    if (code == ERROR_NOT_FOUND) throw TQException(code, L"_TQThreadPoolBase::PostForRequestor");
    throw TQSysException(code, L"Posting of the thread pool work failed.");
}

PoolQueue::WorkItemPtr PoolQueue::AllocWorkData(const void* data, DWORD size, DWORD requestorID) {
    WorkItemPtr item(new (std::nothrow) _TQThreadPoolBase::PoolWorkItem);
    if (!item) TQStdExceptions::ThrowMemAllocError(L"_TQThreadPoolBase::AllocWorkData");
    item->data.Assign(static_cast<const BYTE*>(data), size);
    item->requestorID = requestorID;
    item->itemID = GetNextItemID();
    return item;
}

bool PoolQueue::TakeItem(Packet& packet, ItemBuffer& data) {
    if (!m_port.IsDropped(packet)) {
        if (data.Room() < ItemBuffer::ShortBytes) data.Reserve(ItemBuffer::ShortBytes);  // for the next ones
        data.Assign(packet.Data(), packet.size);
    }
    packet.Free();
    return m_port.Settle(packet);
}

}  // namespace Quellan::Corvel
