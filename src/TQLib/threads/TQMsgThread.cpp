#include "TQLib/threads/TQMsgThread.h"

#include "TQLib/core/TQException.h"
#include "TQLib/core/internal/Insist.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/threads/internal/WaitFailure.h"

#include <algorithm>
#include <array>
#include <new>

namespace Quellan::Corvel {

namespace {

constexpr DWORD TickMs = 500;

// The stop event and the event of a changed list come before the list.
constexpr DWORD FirstListIndex = 2;

}  // namespace

TQMsgThread::TQMsgThread() : m_handlesChanged(false) {}

TQMsgThread::TQMsgThread(const void* data, ULONGLONG size) : TQThread(data, size), m_handlesChanged(false) {}

TQMsgThread::~TQMsgThread() {
    EndThread();
}

void TQMsgThread::Stop() {
    // Only once: the quit message itself stops the thread too.
    const bool isFirst = !Stopped();
    TQThread::Stop();
    const _TQLastErrorKeeper keeper;
    if (isFirst && HasThread()) PostThreadMessageW(ID(), WM_QUIT, 0, 0);
}

bool TQMsgThread::PostMsg(UINT msg, ULONGLONG wParam, LONGLONG lParam, bool throwOnFailure) {
    // The id of a thread that has ended may be another thread's by now.
    if (!HasThread())
        SetLastError(ERROR_INVALID_THREAD_ID);
    else if (PostThreadMessageW(ID(), msg, wParam, lParam))
        return true;
    if (throwOnFailure) TQSysException::ThrowLastError(L"Thread post message failed.");
    return false;
}

void TQMsgThread::AddWaitHandle(HANDLE handle) {
    {
        const TQThreadSynch::TQSynchLock guard(LockObj());
        if (std::ranges::find(m_waitHandles, handle) != m_waitHandles.end()) return;
        if (m_waitHandles.size() == MaxWaitHandles)
            TQStdExceptions::ThrowOverflowError(L"TQMsgThread::AddWaitHandle");
        try {
            m_waitHandles.push_back(handle);
        } catch (const std::bad_alloc&) {
            TQStdExceptions::ThrowMemAllocError(L"TQMsgThread::AddWaitHandle");
        }
    }
    SetSurely(m_handlesChanged.Handle());
}

void TQMsgThread::RemoveWaitHandle(HANDLE handle) {
    {
        const TQThreadSynch::TQSynchLock guard(LockObj());
        if (std::erase(m_waitHandles, handle) == 0) return;
    }
    SetSurely(m_handlesChanged.Handle());
}

unsigned int TQMsgThread::OnStart(const BYTEBuf&) {
    MSG message;
    PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);
    return 0;
}

unsigned int TQMsgThread::RunWork(BYTEBuf&) {
    unsigned int result = 0;
    bool isLastPass;
    do {
        // Looked at before the messages are: those that came before the stop are all handled.
        isLastPass = Stopped();
        WaitForInput();
        if (const unsigned int code = HandleMessages()) result = code;
    } while (!isLastPass);
    return result;
}

void TQMsgThread::OnThreadMessage(UINT, ULONGLONG, LONGLONG, DWORD) {}

void TQMsgThread::OnWaitHandle(HANDLE) {}

void TQMsgThread::WaitForInput() {
    std::array<HANDLE, FirstListIndex + MaxWaitHandles> handles = {StopEvent().Handle(),
                                                                   m_handlesChanged.Handle()};
    DWORD count = FirstListIndex;
    {
        const TQThreadSynch::TQSynchLock guard(LockObj());
        for (const HANDLE handle : m_waitHandles)
            handles[count++] = handle;
    }
    DWORD index = MsgWaitForMultipleObjectsEx(count, handles.data(), TickMs, QS_ALLINPUT, MWMO_ALERTABLE);
    if (index == WAIT_FAILED) TQSysException::ThrowLastError(WaitFailed);
    if (index >= WAIT_ABANDONED_0 && index < WAIT_ABANDONED_0 + count) index -= WAIT_ABANDONED_0;
    if (index >= FirstListIndex && index < count) OnWaitHandle(handles[index]);
}

// Returns the code of a message that could not be taken, else 0.
unsigned int TQMsgThread::HandleMessages() {
    MSG message;
    while (PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE)) {
        const BOOL taken = GetMessageW(&message, nullptr, 0, 0);
        if (taken < 0) {
            const DWORD code = GetLastError();
            Stop();
            return code;
        }
        if (taken == 0) {
            Stop();
        } else if (message.hwnd) {
            TranslateMessage(&message);
            DispatchMessageW(&message);
        } else {
            OnThreadMessage(message.message, message.wParam, message.lParam, message.time);
        }
    }
    return 0;
}

}  // namespace Quellan::Corvel
