#include "TQLib/threads/internal/Requestors.h"

#include "TQLib/text/memory/TQStdExceptions.h"

#include <new>
#include <utility>

namespace Quellan::Corvel {

Requestors::Requestors() {
    try {
        Grow(FirstPlaces);
    } catch (const std::bad_alloc&) {
        TQStdExceptions::ThrowMemAllocError(L"Allocation of thread pool requestor ID queue failed");
    }
}

void Requestors::Grow(std::size_t places) {
    auto map = std::make_unique<QueueMap>(places);
    for (const auto& queue : m_queues)
        if (const DWORD id = queue->RequestorID()) map->PlaceOf(id) = queue.get();
    m_map = m_maps.emplace_back(std::move(map)).get();
}

DWORD Requestors::Add() noexcept {
    try {
        // At most every second place is taken, so that a free one is near.
        const std::size_t places = m_map.load()->places.size();
        if (2 * m_count >= places) Grow(2 * places);
        if (!m_free) m_free = m_queues.emplace_back(std::make_unique<WorkQueue>()).get();
    } catch (const std::bad_alloc&) {
        return 0;
    }
    WorkQueue* const queue = std::exchange(m_free, m_free->nextFree);
    ++m_count;
    // Identifiers come round again after 2^32 of them.
    do
        ++m_lastRequestorID;
    while (m_lastRequestorID == 0 || m_map.load()->PlaceOf(m_lastRequestorID).load());
    queue->GiveTo(m_lastRequestorID);
    m_map.load()->PlaceOf(m_lastRequestorID) = queue;
    return m_lastRequestorID;
}

DWORD Requestors::Release(DWORD requestorID) noexcept {
    WorkQueue* const queue = RequestorQueue(requestorID);
    if (!queue) return 0;
    m_map.load()->PlaceOf(requestorID) = nullptr;
    // The order matters: who has counted an item meanwhile did so before the clear.
    queue->GiveTo(0);
    const DWORD count = queue->Clear();
    queue->nextFree = std::exchange(m_free, queue);
    --m_count;
    return count;
}

DWORD Requestors::Clear(DWORD requestorID) noexcept {
    WorkQueue* const queue = RequestorQueue(requestorID);
    return queue ? queue->Clear() : 0;
}

DWORD Requestors::ClearAll() noexcept {
    DWORD count = 0;
    for (const auto& queue : m_queues)
        count += queue->Clear();
    return count;
}

}  // namespace Quellan::Corvel
