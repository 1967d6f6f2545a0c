// Threads that are driven by messages and by signalled objects.
#pragma once

#include "TQLib/threads/TQThread.h"

#include <vector>

namespace Quellan::Corvel {

// A thread whose work is a message loop: it takes the messages posted to it, and calls a handler for each
// object of its list that is signalled, until it is stopped or the quit message comes. What was posted before
// `Stop` is handled before the thread ends. Asynchronous procedure calls run in it where the platform has
// them.
//
// An exception that leaves a handler ends the loop, as does an object whose handle was closed while it was in
// the list: "Wait on synch object failed.", 6 (ERROR_INVALID_HANDLE), at the next pass.
class TQLIB_API TQMsgThread : public TQThread {
  public:
    using WaitList = std::vector<HANDLE>;

    // How many objects it can wait for besides its own.
    static constexpr DWORD MaxWaitHandles = 61;

    TQMsgThread();
    TQMsgThread(const void* data, ULONGLONG size);
    ~TQMsgThread() override;

    // Requests a stop; a message loop that a handler runs of its own gets the quit message.
    void Stop() override;

    // Posts a message to the thread. Where it can't be posted, code 1444 (ERROR_INVALID_THREAD_ID) for a
    // thread that was never started or has ended: throws "Thread post message failed.", or with
    // `throwOnFailure` false returns false and leaves the code as the last error. A thread that is still
    // suspended takes no messages.
    bool PostMsg(UINT msg, ULONGLONG wParam, LONGLONG lParam, bool throwOnFailure = true);

    // The handler is called whenever the object is signalled; one that stays signalled keeps it busy, and of
    // several the one added first comes first. The handle is borrowed: remove it before closing it. One that
    // is in the list is not added again. Throws 111 (ERROR_BUFFER_OVERFLOW) beyond `MaxWaitHandles`.
    void AddWaitHandle(HANDLE handle);
    // Does nothing for a handle that is not in the list. A call of the handler under way goes on.
    void RemoveWaitHandle(HANDLE handle);

  protected:
    // Makes the message queue. An override calls this one.
    unsigned int OnStart(const BYTEBuf& data) override;
    // The loop. Its result is 0, or the platform's code where a message could not be taken.
    unsigned int RunWork(BYTEBuf& data) override;

    // Called on the thread for a message that was posted to it, with the tick count of the posting.
    virtual void OnThreadMessage(UINT msg, ULONGLONG wParam, LONGLONG lParam, DWORD time);
    // Called on the thread for an object of the list that was signalled, or for a mutex of the list, which
    // the thread then owns.
    virtual void OnWaitHandle(HANDLE handle);

  private:
    void WaitForInput();
    unsigned int HandleMessages();

    WaitList m_waitHandles TQ_GUARDED_BY(LockObj());
    const TQEvent m_handlesChanged;
};

}  // namespace Quellan::Corvel
