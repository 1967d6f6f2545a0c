#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/threads/internal/ItemFifo_linux.h"
#include "TQLib/threads/internal/PoolHandle.h"
#include "TQLib/threads/internal/PoolPort.h"
#include "TQLib/threads/internal/PoolSleepers_linux.h"

#include <cstring>

namespace Quellan::Corvel {

using Platform::FaultDue;

struct PoolPort::Impl {
    ~Impl() { PoolHandleClose()(port.load()); }

    // Something was pushed.
    void Tell() noexcept {
        if (const auto need = sleepers.NeedAfterPush(); need != PoolSleepers::Need::Nothing) [[unlikely]]
            TellSleepers(need);
    }
    TQ_NOINLINE void TellSleepers(PoolSleepers::Need need) noexcept;
    [[nodiscard]] DWORD TakeAtPort(DWORD ms, Packet& packet) noexcept;
    // A packet of the port. With WAIT_TIMEOUT there is none.
    [[nodiscard]] DWORD GetFromPort(DWORD ms, Packet& packet) const noexcept;

    ItemFifo items;
    PoolSleepers sleepers{items};
    std::atomic<HANDLE> port = nullptr;
    OVERLAPPED look{};  // posted at the port for threads that wait there, once there is a port
    alignas(64) std::atomic<DWORD> stops = 0;
};

PoolPort::PoolPort(const void*) : m_impl(std::make_unique<Impl>()) {
    constexpr const wchar_t* failed = L"Completion port could not be created for thread pool.";
    if (const DWORD code = FaultDue("CreateIoCompletionPort")) throw TQSysException(code, failed);
    if (!m_impl->items.Begin()) throw TQSysException(ERROR_NOT_ENOUGH_MEMORY, failed);
}

PoolPort::~PoolPort() = default;

void PoolPort::Close() noexcept {
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

DWORD PoolPort::Stops() const noexcept {
    return m_impl->stops.load();
}

DWORD PoolPort::PostItem(const ItemTag& tag, const void* data, DWORD size) {
    if (const DWORD code = FaultDue("PostQueuedCompletionStatus")) return code;
    Platform::BeforeWait();
    Record* holder = nullptr;
    if (size > Packet::InlineBytes) {
        holder = _TQWin32AsynchRoot::AllocOverlapped(size, true, 0);
        std::memcpy(holder->data, data, size);
    }
    if (!m_impl->items.Push(Kind::Item, tag, size, data, holder)) {
        _TQWin32AsynchRoot::FreeOverlapped(holder);
        return ERROR_NO_SYSTEM_RESOURCES;
    }
    m_impl->Tell();
    return ERROR_SUCCESS;
}

bool PoolPort::PostThreadStop() noexcept {
    m_impl->stops.fetch_add(1);
    if (!FaultDue("PostQueuedCompletionStatus") && m_impl->items.Push(Kind::Stop, {}, 0, nullptr, nullptr)) {
        m_impl->Tell();
        return true;
    }
    m_impl->stops.fetch_sub(1);
    return false;
}

void PoolPort::Impl::TellSleepers(PoolSleepers::Need need) noexcept {
    if (need == PoolSleepers::Need::Dismissed)
        Insist([this] { return PostQueuedCompletionStatus(port.load(), 0, 0, &look); });
    else
        sleepers.WakeOne();
}

DWORD PoolPort::Take(DWORD ms, Packet& packet) noexcept {
    if (const DWORD code = FaultDue("GetQueuedCompletionStatus")) return code;
    Platform::BeforeWait();
    // Only once they are dismissed does a post tell those who wait at the port.
    PoolSleepers& sleepers = m_impl->sleepers;
    DWORD code = ERROR_SUCCESS;
    if (sleepers.AreDismissed()) [[unlikely]] {
        code = m_impl->TakeAtPort(ms, packet);
    } else if (!m_impl->items.Pop(packet)) {
        if (ms == 0) return WAIT_TIMEOUT;
        if (!sleepers.Await(Platform::DeadlineAfter(ms), packet))
            code = sleepers.AreDismissed() ? m_impl->TakeAtPort(ms, packet) : DWORD{WAIT_TIMEOUT};
    }
    if (code == ERROR_SUCCESS && packet.kind == Kind::Stop) m_impl->stops.fetch_sub(1);
    return code;
}

// What is in the port and what is queued go by turns: neither waits until there is none of the other.
DWORD PoolPort::Impl::TakeAtPort(DWORD ms, Packet& packet) noexcept {
    for (DWORD waitMs = 0;; waitMs = ms) {
        const DWORD code = GetFromPort(waitMs, packet);
        const bool isLook = code == ERROR_SUCCESS && packet.record == &look;
        if (!isLook && code != WAIT_TIMEOUT) return code;
        if (items.Pop(packet)) return ERROR_SUCCESS;
        if (!isLook && waitMs == ms) return WAIT_TIMEOUT;
    }
}

DWORD PoolPort::Impl::GetFromPort(DWORD ms, Packet& packet) const noexcept {
    packet.kind = Kind::Foreign;
    packet.error = ERROR_SUCCESS;
    if (!GetQueuedCompletionStatus(port.load(), &packet.bytes, &packet.key, &packet.record, ms)) {
        const DWORD code = GetLastError();
        if (!packet.record) return code;
        packet.error = code;
    }
    return ERROR_SUCCESS;
}

}  // namespace Quellan::Corvel
