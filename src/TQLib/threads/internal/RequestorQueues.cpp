#include "TQLib/threads/internal/RequestorQueues.h"

#include "TQLib/text/memory/internal/Translated.h"
#include "TQLib/threads/TQWin32AsynchRoot.h"

#include <new>
#include <utility>

namespace Quellan::Corvel {

RequestorQueues::RequestorQueues() {
    auto* const ids = new (std::nothrow) IDQueue;
    if (!ids) TQStdExceptions::ThrowMemAllocError(L"Allocation of thread pool requestor ID queue failed");
    m_ids.Reset(ids);
}

RequestorQueues::QueueMap::node_type RequestorQueues::NewQueue() {
    QueueMap made;
    Translated(L"_TQThreadPoolBase::GetNewRequestorID", [&] { made.try_emplace(0); });
    return made.extract(made.begin());
}

DWORD RequestorQueues::Add(QueueMap::node_type queue) noexcept {
    // Identifiers come round again after 2^32 of them.
    do
        ++m_lastRequestorID;
    while (m_lastRequestorID == 0 || m_queues.contains(m_lastRequestorID));
    queue.key() = m_lastRequestorID;
    m_queues.insert(std::move(queue));
    return m_lastRequestorID;
}

DWORD RequestorQueues::Release(DWORD requestorID) noexcept {
    const auto found = m_queues.find(requestorID);
    if (found == m_queues.end()) return 0;
    const DWORD count = DropItems(found->second);
    m_queues.erase(found);
    return count;
}

DWORD RequestorQueues::Clear(DWORD requestorID) noexcept {
    WorkQueue* const queue = RequestorQueue(requestorID);
    return queue ? DropItems(*queue) : 0;
}

DWORD RequestorQueues::ClearAll() noexcept {
    DWORD count = 0;
    for (auto& [id, queue] : m_queues)
        count += DropItems(queue);
    return count;
}

bool RequestorQueues::TakeBack(DWORD requestorID, DWORD itemID) noexcept {
    WorkQueue* const queue = RequestorQueue(requestorID);
    if (!queue) return false;
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
        return true;
    }
    return false;
}

// False where the entry of the requestor stands for an item that was dropped.
bool RequestorQueues::GetNextRequestorWork(DWORD requestorID, BYTEBuf& data) noexcept {
    WorkQueue* const queue = RequestorQueue(requestorID);
    if (!queue) return false;
    if (queue->dropped != 0) {
        --queue->dropped;
        return false;
    }
    WorkItemPtr item = queue->items.Pop();
    item->data.Swap(data);
    KeepSpare(std::move(item));
    return true;
}

DWORD RequestorQueues::DropItems(WorkQueue& queue) noexcept {
    const auto count = static_cast<DWORD>(queue.items.Size());
    queue.items.Clear();
    queue.dropped += count;
    return count;
}

void RequestorQueues::KeepSpare(WorkItemPtr&& item) noexcept {
    if (item->data.Capacity() > _TQWin32AsynchRoot::RecycledBytes) item->data.Clear();
    if (m_spareItems.size() >= KeptSpareItems) return;
    try {
        m_spareItems.push_back(std::move(item));
    } catch (const std::bad_alloc&) {
        // Then the next post makes a new one.
    }
}

}  // namespace Quellan::Corvel
