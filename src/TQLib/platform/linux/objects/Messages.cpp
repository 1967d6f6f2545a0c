#include "TQLib/platform/linux/objects/Messages.h"

#include "TQLib/platform/linux/base/Environment.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/LockWatch.h"
#include "TQLib/platform/linux/objects/ThreadObject.h"
#include "TQLib/platform/linux/objects/WaitTargets.h"

#include <algorithm>

namespace Quellan::Platform {

static MSG NewMessage(UINT message, WPARAM wParam, LPARAM lParam) noexcept {
    return {nullptr, message, wParam, lParam, GetTickCount(), {}};
}

bool MessageQueue::Range::Contains(UINT message) const noexcept {
    return (first == 0 && last == 0) || message == WM_QUIT || (message >= first && message <= last);
}

void MessageQueue::Open() noexcept {
    const Guard lock(m_lock);
    m_open = true;
}

void MessageQueue::Close() noexcept {
    const Guard lock(m_lock);
    m_open = false;
    m_messages.clear();
}

// The event is set inside the lock: after it a message already taken could be announced. Its waiters are told
// after it.
DWORD MessageQueue::Post(const MSG& message) noexcept {
    WakeList wakes;
    const Guard lock(m_lock);
    if (!m_open) return ERROR_INVALID_THREAD_ID;
    if (m_messages.size() >= MostMessages) return ERROR_NOT_ENOUGH_QUOTA;
    try {
        m_messages.push_back(message);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    m_newInput.Signal(wakes);
    return ERROR_SUCCESS;
}

void MessageQueue::PostQuit(int exitCode) noexcept {
    const Guard lock(m_lock);
    m_quit = true;
    m_exitCode = exitCode;
    m_newInput.Signal();
}

bool MessageQueue::Peek(Range range, bool remove, MSG& message) noexcept {
    const Guard lock(m_lock);
    m_newInput.Reset();
    const auto found =
        std::ranges::find_if(m_messages, [&](const MSG& each) { return range.Contains(each.message); });
    if (found != m_messages.end()) {
        message = *found;
        if (remove) m_messages.erase(found);
        return true;
    }
    if (!m_quit) return false;
    message = NewMessage(WM_QUIT, static_cast<WPARAM>(m_exitCode), 0);
    m_quit = !remove;
    return true;
}

bool MessageQueue::HasInput() const noexcept {
    const Guard lock(m_lock);
    return !m_messages.empty() || m_quit;
}

namespace {

// The calling thread's, open; null when there is no memory for it.
MessageQueue* OwnQueue() noexcept {
    Thread* const thread = Thread::Current();
    if (!thread) return nullptr;
    thread->Messages().Open();
    return &thread->Messages();
}

DWORD CheckLook(const MSG* message, HWND window) noexcept {
    if (!message) return ERROR_NOACCESS;
    const bool ofThread = !window || reinterpret_cast<std::intptr_t>(window) == -1;
    return ofThread ? ERROR_SUCCESS : ERROR_INVALID_WINDOW_HANDLE;
}

DWORD WaitForMessageOr(DWORD count, const HANDLE* handles, DWORD ms, DWORD wakeMask, DWORD flags,
                       DWORD& status) noexcept {
    constexpr DWORD KnownFlags = MWMO_WAITALL | MWMO_ALERTABLE | MWMO_INPUTAVAILABLE;
    if (flags & ~KnownFlags || count >= MAXIMUM_WAIT_OBJECTS) return ERROR_INVALID_PARAMETER;
    const bool all = flags & MWMO_WAITALL;
    WaitTargets targets;
    if (count != 0)
        if (DWORD code = targets.Open(count, handles, all)) return code;
    MessageQueue* const queue = OwnQueue();
    if (!queue) return ERROR_NOT_ENOUGH_MEMORY;
    const bool hearsMessages = wakeMask & (QS_POSTMESSAGE | QS_ALLPOSTMESSAGE);
    if (hearsMessages && flags & MWMO_INPUTAVAILABLE && queue->HasInput()) {
        // The message is there; only the handles are left to wait for, and any of them goes before it.
        status = all ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
        if (count != 0)
            if (DWORD code = Wait(targets.Objects(), all, all ? ms : 0, status)) return code;
        if (all == (status == WAIT_TIMEOUT)) return ERROR_SUCCESS;
        queue->NewInput().Reset();  // this wait tells of it
        if (!all) status = WAIT_OBJECT_0 + count;
        return ERROR_SUCCESS;
    }
    if (hearsMessages) targets.Append(queue->NewInput());
    return Wait(targets.Objects(), all, ms, status);
}

}  // namespace

BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wParam, LPARAM lParam) noexcept {
    if (DWORD code = FaultDue("PostThreadMessageW")) return Fail(code, FALSE);
    const std::shared_ptr<Thread> target = Thread::Find(thread);
    if (!target) return Fail(ERROR_INVALID_THREAD_ID, FALSE);
    const MSG posted = NewMessage(message, wParam, lParam);
    if (DWORD code = target->Messages().Post(posted)) return Fail(code, FALSE);
    return TRUE;
}

void PostQuitMessage(int exitCode) noexcept {
    if (MessageQueue* queue = OwnQueue()) queue->PostQuit(exitCode);
}

BOOL PeekMessageW(MSG* message, HWND window, UINT first, UINT last, UINT flags) noexcept {
    if (DWORD code = FaultDue("PeekMessageW")) return Fail(code, FALSE);
    if (DWORD code = CheckLook(message, window)) return Fail(code, FALSE);
    if (flags & ~(PM_REMOVE | PM_NOYIELD)) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    MessageQueue* const queue = OwnQueue();
    if (!queue) return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
    return queue->Peek({first, last}, flags & PM_REMOVE, *message);
}

BOOL GetMessageW(MSG* message, HWND window, UINT first, UINT last) noexcept {
    if (DWORD code = FaultDue("GetMessageW")) return Fail(code, -1);
    if (DWORD code = CheckLook(message, window)) return Fail(code, -1);
    BeforeWait();
    MessageQueue* const queue = OwnQueue();
    if (!queue) return Fail(ERROR_NOT_ENOUGH_MEMORY, -1);
    Waitable* const input = &queue->NewInput();
    while (!queue->Peek({first, last}, true, *message)) {
        DWORD status;
        if (DWORD code = Wait({&input, 1}, false, INFINITE, status)) return Fail(code, -1);
    }
    return message->message != WM_QUIT;
}

BOOL TranslateMessage(const MSG*) noexcept {
    return FALSE;
}

LRESULT DispatchMessageW(const MSG* message) noexcept {
    if (message && message->hwnd) SetLastError(ERROR_INVALID_WINDOW_HANDLE);
    return 0;
}

DWORD MsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD ms, DWORD wakeMask,
                                  DWORD flags) noexcept {
    if (DWORD code = FaultDue("MsgWaitForMultipleObjectsEx")) return Fail(code, WAIT_FAILED);
    BeforeWait();
    DWORD status;
    if (DWORD code = WaitForMessageOr(count, handles, ms, wakeMask, flags, status))
        return Fail(code, WAIT_FAILED);
    return status;
}

}  // namespace Quellan::Platform
