#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/threads/internal/ItemFifo_linux.h"
#include "TQLib/threads/internal/PoolHandle.h"
#include "TQLib/threads/internal/PoolPort.h"
#include "TQLib/threads/internal/PoolSleepers_linux.h"
#include "TQLib/threads/internal/Requestors.h"

#include <cstring>

namespace Quellan::Corvel {

using Platform::FaultDue;

namespace {

// The compiler's own choice for a copy that is known to be short is one instruction for all of it, which takes
// longer than a whole post.
void CopyShort(BYTE* to, const BYTE* from, std::size_t size) noexcept {
    constexpr std::size_t step = 16;
    if (size < step) {
        for (; size != 0; --size)
            *to++ = *from++;
        return;
    }
    // From both ends towards the middle.
    for (std::size_t at = 0; 2 * at < size; at += step) {
        std::memcpy(to + at, from + at, step);
        std::memcpy(to + size - step - at, from + size - step - at, step);
    }
}

}  // namespace

struct PoolPort::Impl {
    ~Impl() { PoolHandleClose()(port.load()); }

    // `fill` puts the data in the slot.
    template <class Fill>
    [[nodiscard]] DWORD Push(ItemFifo::PushPlace place, const std::atomic<bool>& isStopped, WorkQueue* queue,
                             DWORD requestorID, DWORD size, Fill fill) noexcept;
    TQ_NOINLINE DWORD PushSlowly(const std::atomic<bool>& isStopped, WorkQueue* queue, DWORD requestorID,
                                 const void* data, DWORD size);
    // The code with which the post fails.
    TQ_NOINLINE DWORD TakeBack(ItemFifo::PushPlace place, WorkQueue* countedBy,
                               const std::atomic<bool>& isStopped) noexcept;
    // Pops what was pushed before, as other threads do.
    void DropQueued() noexcept;
    // False where there is nothing.
    [[nodiscard]] bool Pop(Packet& packet, ItemBuffer& data) noexcept;
    [[nodiscard]] bool Empty(ItemFifo::PopPlace place, Packet& packet, ItemBuffer& data) noexcept;
    bool EmptyToPacket(ItemFifo::PopPlace place, Packet& packet) noexcept;
    // What `Take` seldom does.
    TQ_NOINLINE DWORD TakeSlowly(Packet& packet, ItemBuffer& data) noexcept;
    TQ_NOINLINE DWORD EmptySlowly(ItemFifo::PopPlace place, Packet& packet, ItemBuffer& data) noexcept;
    TQ_NOINLINE DWORD LeaveDropped(ItemFifo::PopPlace place, Packet& packet, ItemBuffer& data) noexcept;
    TQ_NOINLINE DWORD LeaveLast(ItemFifo::PopPlace place) noexcept;
    [[nodiscard]] bool Settle(WorkQueue* queue, DWORD epoch) noexcept;

    // Something was pushed. ERROR_SUCCESS.
    DWORD Tell() noexcept {
        const auto need = sleepers.NeedAfterPush();
        return need == PoolSleepers::Need::Nothing ? ERROR_SUCCESS : TellSleepers(need);
    }
    TQ_NOINLINE DWORD TellSleepers(PoolSleepers::Need need) noexcept;

    template <class TakeQueued>
    [[nodiscard]] DWORD TakeAtPort(DWORD ms, Packet& packet, TakeQueued takeQueued) noexcept;
    // Of a thread that counts as waiting.
    [[nodiscard]] bool PopWaiting(Packet& packet, ItemBuffer& data, PoolCounters& counters) noexcept;
    // A packet of the port. With WAIT_TIMEOUT there is none.
    [[nodiscard]] DWORD GetFromPort(DWORD ms, Packet& packet) const noexcept;

    ItemFifo items;
    PoolSleepers sleepers{items};
    std::atomic<HANDLE> port = nullptr;
    OVERLAPPED look{};  // posted at the port for threads that wait there, once there is a port
    // Items that were taken or dropped.
    alignas(128) mutable std::atomic<ULONGLONG> settled = 0;
    std::atomic<ULONGLONG> clears = 0;
};

PoolPort::PoolPort(const void*) : m_impl(std::make_unique<Impl>()) {
    constexpr const wchar_t* failed = L"Completion port could not be created for thread pool.";
    if (const DWORD code = FaultDue("CreateIoCompletionPort")) throw TQSysException(code, failed);
    if (!m_impl->items.Begin()) throw TQSysException(ERROR_NOT_ENOUGH_MEMORY, failed);
}

PoolPort::~PoolPort() {
    Close();
}

void PoolPort::Close() noexcept {
    if (!m_impl) return;
    ItemBuffer none;
    for (Packet packet; m_impl->Pop(packet, none);)
        if (packet.kind == Kind::Item) packet.Free();
    m_impl.reset();
}

HANDLE PoolPort::Port() noexcept {
    if (!m_impl) return nullptr;
    HANDLE port = m_impl->port.load();
    if (port) return port;
    PoolHandle made(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    if (!made || !m_impl->port.compare_exchange_strong(port, made.get())) return port;
    m_impl->sleepers.Dismiss();
    return made.release();
}

// Numbers.

// The settled ones first: never less than there are.
DWORD PoolPort::Items() const noexcept {
    const ULONGLONG settled = ReadCounter(m_impl->settled);
    return static_cast<DWORD>(m_impl->items.Pushed() - settled);
}

DWORD PoolPort::InFlight() const noexcept {
    const ULONGLONG popped = m_impl->items.Popped();
    return static_cast<DWORD>(m_impl->items.Pushed() - popped);
}

ULONGLONG PoolPort::AllPosted() const noexcept {
    return m_impl->items.Pushed();
}

DWORD PoolPort::Stops() const noexcept {
    return m_impl->items.Stops();
}

// Posting.

// What is done for almost every item calls nothing.
DWORD PoolPort::PostItem(WorkQueue* queue, DWORD requestorID, const void* data, DWORD size) {
    if (const DWORD code = FaultDue("PostQueuedCompletionStatus")) return code;
    Platform::BeforeWait();
    if (size <= Packet::InlineBytes && !Platform::g_hasRaceTool) [[likely]] {
        if (const auto place = m_impl->items.TryBeginPush(); place.slot) [[likely]]
            return m_impl->Push(place, m_isStopped, queue, requestorID, size, [=](ItemFifo::Slot& slot) {
                CopyShort(slot.data, static_cast<const BYTE*>(data), size);
            });
    }
    return m_impl->PushSlowly(m_isStopped, queue, requestorID, data, size);
}

DWORD PoolPort::Impl::PushSlowly(const std::atomic<bool>& isStopped, WorkQueue* queue, DWORD requestorID,
                                 const void* data, DWORD size) {
    Record* holder = nullptr;
    if (size > Packet::InlineBytes) {
        holder = _TQWin32AsynchRoot::AllocOverlapped(size, true, 0);
        std::memcpy(holder->data, data, size);
    }
    Platform::TellReleased(&items);
    DWORD code = ERROR_NO_SYSTEM_RESOURCES;
    if (const auto place = items.BeginPush(); place.slot)
        code = Push(place, isStopped, queue, requestorID, size, [=](ItemFifo::Slot& slot) {
            if (holder)
                slot.holder = holder;
            else
                CopyShort(slot.data, static_cast<const BYTE*>(data), size);
        });
    if (code != ERROR_SUCCESS) _TQWin32AsynchRoot::FreeOverlapped(holder);
    return code;
}

// The order matters. With its place the item counts as pushed: who stops the pool after that drops it, and
// who stopped it before is seen; a queue counts no item that is not pushed; and a thread that goes to sleep
// after that sees it, so that one that slept before is seen here.
template <class Fill>
inline DWORD PoolPort::Impl::Push(ItemFifo::PushPlace place, const std::atomic<bool>& isStopped,
                                  WorkQueue* queue, DWORD requestorID, DWORD size, Fill fill) noexcept {
    ItemFifo::Slot& slot = *place.slot;
    slot.size = size;
    slot.queue = queue;
    if (queue && !queue->Post(requestorID, slot.epoch)) [[unlikely]]
        return TakeBack(place, nullptr, isStopped);
    if (isStopped.load()) [[unlikely]]
        return TakeBack(place, queue, isStopped);
    fill(slot);
    ItemFifo::EndPush(place);
    return Tell();
}

// Whoever pops the place finds nothing there. Of a pool that is stopped the threads may be gone.
DWORD PoolPort::Impl::TakeBack(ItemFifo::PushPlace place, WorkQueue* countedBy,
                               const std::atomic<bool>& isStopped) noexcept {
    static_cast<void>(Settle(countedBy, place.slot->epoch));
    place.slot->size = ItemFifo::Slot::Void;
    ItemFifo::EndPush(place);
    if (!isStopped.load()) {
        static_cast<void>(Tell());
        return ERROR_NOT_FOUND;
    }
    DropQueued();
    return ERROR_OPERATION_ABORTED;
}

bool PoolPort::PostThreadStop() noexcept {
    if (FaultDue("PostQueuedCompletionStatus")) return false;
    m_impl->items.PushStop();
    return m_impl->Tell() == ERROR_SUCCESS;
}

DWORD PoolPort::Impl::TellSleepers(PoolSleepers::Need need) noexcept {
    if (need == PoolSleepers::Need::Dismissed)
        Insist([this] { return PostQueuedCompletionStatus(port.load(), 0, 0, &look); });
    else
        sleepers.WakeOne();
    return ERROR_SUCCESS;
}

// Dropping.

void PoolPort::Drop(DWORD count) noexcept {
    m_impl->settled.fetch_add(count);
}

void PoolPort::DropAnonymous() noexcept {
    m_impl->clears.fetch_add(1);
    m_impl->DropQueued();
}

void PoolPort::Impl::DropQueued() noexcept {
    for (const ULONGLONG end = items.Pushed(); items.Popped() < end;) {
        const ItemFifo::PopPlace place = items.BeginPop();
        if (!place) continue;
        const ItemFifo::Slot& slot = *place.Slot();
        if (slot.size != ItemFifo::Slot::Void) {
            static_cast<void>(Settle(slot.queue, slot.epoch));
            if (slot.size > Packet::InlineBytes) _TQWin32AsynchRoot::FreeOverlapped(slot.holder);
        }
        items.EndPop(place);
    }
}

inline bool PoolPort::Impl::Settle(WorkQueue* queue, DWORD epoch) noexcept {
    // What was dropped was settled by whoever dropped it.
    if (queue && !queue->Settle(epoch)) return false;
    settled.fetch_add(1);
    return true;
}

bool PoolPort::IsDropped(const Packet& packet) const noexcept {
    return packet.queue ? packet.queue->IsDropped(static_cast<DWORD>(packet.number))
                        : packet.number != m_impl->clears.load();
}

// An anonymous item was settled when it was popped.
bool PoolPort::Settle(const Packet& packet) noexcept {
    return packet.queue ? m_impl->Settle(packet.queue, static_cast<DWORD>(packet.number))
                        : !IsDropped(packet);
}

// Taking.

// What is done for almost every item calls nothing, and ends in calls for the rest: it saves no registers.
DWORD PoolPort::Take(Packet& packet, ItemBuffer& data) noexcept {
    if (const DWORD code = FaultDue("GetQueuedCompletionStatus")) return code;
    Platform::BeforeWait();
    Impl& impl = *m_impl;
    if (impl.sleepers.AreDismissed() || Platform::g_hasRaceTool) [[unlikely]]
        return impl.TakeSlowly(packet, data);
    const ItemFifo::PopPlace place = impl.items.TryBeginPop();
    if (!place) [[unlikely]]
        return impl.TakeSlowly(packet, data);
    const ItemFifo::Slot& slot = *place.Slot();
    if (!ItemFifo::IsFilled(place) || slot.size > Packet::InlineBytes || !data.TakeSame(slot.data, slot.size))
        [[unlikely]]
        return impl.EmptySlowly(place, packet, data);
    Compiler::PrefetchToRead(&slot + 1);  // for who pops it next
    packet.kind = Kind::Taken;
    if (!impl.Settle(slot.queue, slot.epoch)) [[unlikely]]
        return impl.LeaveDropped(place, packet, data);
    if (ItemFifo::Leave(place)) [[unlikely]]
        return impl.LeaveLast(place);
    return ERROR_SUCCESS;
}

DWORD PoolPort::Impl::TakeSlowly(Packet& packet, ItemBuffer& data) noexcept {
    if (sleepers.AreDismissed()) return TakeAtPort(0, packet, [&] { return Pop(packet, data); });
    return Pop(packet, data) ? DWORD{ERROR_SUCCESS} : DWORD{WAIT_TIMEOUT};
}

DWORD PoolPort::Impl::EmptySlowly(ItemFifo::PopPlace place, Packet& packet, ItemBuffer& data) noexcept {
    ItemFifo::AwaitPush(place);
    return Empty(place, packet, data) ? DWORD{ERROR_SUCCESS} : TakeSlowly(packet, data);
}

DWORD PoolPort::Impl::LeaveDropped(ItemFifo::PopPlace place, Packet& packet, ItemBuffer& data) noexcept {
    items.EndPop(place);
    return TakeSlowly(packet, data);
}

DWORD PoolPort::Impl::LeaveLast(ItemFifo::PopPlace place) noexcept {
    items.GiveBack(place);
    return ERROR_SUCCESS;
}

inline bool PoolPort::Impl::Pop(Packet& packet, ItemBuffer& data) noexcept {
    for (;;) {
        const ItemFifo::PopPlace place = items.BeginPop();
        if (!place) {
            packet.kind = Kind::Stop;
            return items.PopStop();
        }
        Platform::TellAcquired(&items);
        if (Empty(place, packet, data)) return true;
    }
}

// False where there is nothing in it for the thread.
inline bool PoolPort::Impl::Empty(ItemFifo::PopPlace place, Packet& packet, ItemBuffer& data) noexcept {
    const ItemFifo::Slot& slot = *place.Slot();
    if (slot.size > Packet::InlineBytes || !data.Take(slot.data, slot.size))
        return EmptyToPacket(place, packet);
    packet.kind = Kind::Taken;
    const bool isTaken = Settle(slot.queue, slot.epoch);
    items.EndPop(place);
    return isTaken;
}

bool PoolPort::Impl::EmptyToPacket(ItemFifo::PopPlace place, Packet& packet) noexcept {
    const ItemFifo::Slot& slot = *place.Slot();
    const bool isVoid = slot.size == ItemFifo::Slot::Void;
    const bool isLong = !isVoid && slot.size > Packet::InlineBytes;
    packet.kind = Kind::Item;
    packet.size = slot.size;
    packet.queue = slot.queue;
    packet.number = slot.queue ? slot.epoch : clears.load();
    packet.holder = isLong ? slot.holder : nullptr;
    if (!isVoid && !isLong) std::memcpy(packet.data, slot.data, sizeof packet.data);
    items.EndPop(place);
    if (!isVoid && !packet.queue) settled.fetch_add(1);
    return !isVoid;
}

DWORD PoolPort::Await(DWORD ms, Packet& packet, ItemBuffer& data, PoolCounters& counters) noexcept {
    if (const DWORD code = FaultDue("GetQueuedCompletionStatus")) return code;
    Platform::BeforeWait();
    // Only once they are dismissed does a post tell those who wait at the port.
    PoolSleepers& sleepers = m_impl->sleepers;
    const auto take = [&] { return m_impl->PopWaiting(packet, data, counters); };
    if (!sleepers.AreDismissed() && sleepers.Await(Platform::DeadlineAfter(ms), take)) return ERROR_SUCCESS;
    if (!sleepers.AreDismissed()) return WAIT_TIMEOUT;
    const DWORD code = m_impl->TakeAtPort(ms, packet, take);
    if (code == ERROR_SUCCESS && packet.kind == Kind::Foreign) counters.BeginTaking();
    return code;
}

bool PoolPort::Impl::PopWaiting(Packet& packet, ItemBuffer& data, PoolCounters& counters) noexcept {
    if (items.IsEmpty()) return false;
    counters.BeginTaking();
    if (Pop(packet, data)) return true;
    counters.CancelTaking();
    return false;
}

// What is in the port and what is queued go by turns: neither waits until there is none of the other.
template <class TakeQueued>
DWORD PoolPort::Impl::TakeAtPort(DWORD ms, Packet& packet, TakeQueued takeQueued) noexcept {
    for (DWORD waitMs = 0;; waitMs = ms) {
        const DWORD code = GetFromPort(waitMs, packet);
        const bool isLook = code == ERROR_SUCCESS && packet.record == &look;
        if (!isLook && code != WAIT_TIMEOUT) return code;
        if (takeQueued()) return ERROR_SUCCESS;
        if (!isLook && waitMs == ms) return WAIT_TIMEOUT;
    }
}

DWORD PoolPort::Impl::GetFromPort(DWORD ms, Packet& packet) const noexcept {
    packet.kind = Kind::Foreign;
    packet.record = nullptr;
    packet.error = ERROR_SUCCESS;
    if (!GetQueuedCompletionStatus(port.load(), &packet.bytes, &packet.key, &packet.record, ms)) {
        const DWORD code = GetLastError();
        if (!packet.record) return code;
        packet.error = code;
    }
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Corvel
