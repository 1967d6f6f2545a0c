// The items that a pool has for requestors.
#pragma once

#include "TQLib/platform/Platform.h"
#include "TQLib/threads/TQThreadPool.h"
#include "TQLib/threads/internal/Ring.h"

#include <map>
#include <utility>
#include <vector>

namespace Quellan::Corvel {

// The items of each requestor and the order of all of them. Each entry of the ID queue stands for one item,
// or for one that was dropped since, so that an item keeps its place among those that were posted before and
// after it, whatever is dropped. One thread at a time.
class RequestorQueues {
  public:
    using WorkItemPtr = _TQThreadPoolBase::WorkItemPtr;
    using SpareItems = std::vector<TQSPtrCont<WorkItemPtr>>;

    // The items of one requestor, in the order of their posting.
    struct WorkQueue {
        Ring<TQSPtrCont<WorkItemPtr>> items;
        // How many of the requestor's entries in the ID queue, its oldest, stand for items that were dropped.
        std::size_t dropped = 0;
    };
    using QueueMap = std::map<DWORD, WorkQueue>;

    // The requestors of all their items, in the order of posting.
    struct IDQueue {
        Ring<DWORD> ids;
    };

    static constexpr std::size_t KeptSpareItems = 65'536;

    // Throws 14 (ERROR_OUTOFMEMORY) "Allocation of thread pool requestor ID queue failed".
    RequestorQueues();

    // What `Add` needs, without a queue at hand. Throws 14 (ERROR_OUTOFMEMORY).
    [[nodiscard]] static QueueMap::node_type NewQueue();
    // A new requestor's ID, never 0.
    DWORD Add(QueueMap::node_type queue) noexcept;

    // Each drops items and gives their number.
    [[nodiscard]] DWORD Release(DWORD requestorID) noexcept;
    [[nodiscard]] DWORD Clear(DWORD requestorID) noexcept;
    [[nodiscard]] DWORD ClearAll() noexcept;

    // One that was used before, or null.
    [[nodiscard]] WorkItemPtr TakeSpare() noexcept {
        WorkItemPtr item;
        if (!m_spareItems.empty()) {
            item = std::move(m_spareItems.back());
            m_spareItems.pop_back();
        }
        return item;
    }
    void GiveSpares(SpareItems& spares) noexcept { spares.swap(m_spareItems); }
    DWORD GetNextItemID() noexcept { return ++m_lastItemID; }
    [[nodiscard]] DWORD LastItemID() const noexcept { return m_lastItemID; }

    // 0, or with nothing done 1168 (ERROR_NOT_FOUND) and 14 (ERROR_OUTOFMEMORY).
    [[nodiscard]] DWORD Push(WorkItemPtr&& item, DWORD requestorID) noexcept {
        WorkQueue* const queue = RequestorQueue(requestorID);
        if (!queue) return ERROR_NOT_FOUND;
        if (!queue->items.TryReserveOne() || !m_ids->ids.TryReserveOne()) return ERROR_OUTOFMEMORY;
        queue->items.Push(std::move(item));
        m_ids->ids.Push(requestorID);
        return ERROR_SUCCESS;
    }
    // Takes an item out again, unless it is taken or dropped already: false then.
    [[nodiscard]] bool TakeBack(DWORD requestorID, DWORD itemID) noexcept;
    // Takes the item whose turn it is; false where that was dropped.
    [[nodiscard]] bool TakeTurn(BYTEBuf& data) noexcept {
        return GetNextRequestorWork(m_ids->ids.Pop(), data);
    }

  private:
    [[nodiscard]] bool GetNextRequestorWork(DWORD requestorID, BYTEBuf& data) noexcept;
    // Null for a requestor that is not known.
    [[nodiscard]] WorkQueue* RequestorQueue(DWORD requestorID) noexcept {
        const auto found = m_queues.find(requestorID);
        return found != m_queues.end() ? &found->second : nullptr;
    }
    [[nodiscard]] static DWORD DropItems(WorkQueue& queue) noexcept;
    void KeepSpare(WorkItemPtr&& item) noexcept;

    QueueMap m_queues;
    TQSmartPtr<IDQueue, _TQRefPtr<IDQueue>> m_ids;
    SpareItems m_spareItems;
    DWORD m_lastRequestorID = 0;
    DWORD m_lastItemID = 0;
};

}  // namespace Quellan::Corvel
