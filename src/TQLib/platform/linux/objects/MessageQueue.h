// A thread's posted messages.
#pragma once

#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/Messages.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"

#include <deque>

namespace Quellan::Platform {

// Exists for other threads once its owner has opened it, and until it closes it. Its owner alone takes
// messages.
class MessageQueue {
  public:
    static constexpr std::size_t MostMessages = 10'000;

    struct Range {
        UINT first;
        UINT last;  // both 0: all messages

        bool Contains(UINT message) const noexcept;
    };

    void Open() noexcept;
    void Close() noexcept;

    // 1444 (ERROR_INVALID_THREAD_ID) when the queue is not open, 1816 (ERROR_NOT_ENOUGH_QUOTA) when it is
    // full, 8 (ERROR_NOT_ENOUGH_MEMORY).
    DWORD Post(const MSG& message) noexcept;
    // The owner asks for WM_QUIT once its other messages are taken.
    void PostQuit(int exitCode) noexcept;

    // The first message in the range; WM_QUIT is in every range. Looking makes older input old, whatever is
    // found.
    bool Peek(Range range, bool remove, MSG& message) noexcept;

    // Signalled from the arrival of a message until the owner looks, or a wait tells him of it.
    Waitable& NewInput() noexcept { return m_newInput; }
    // Whether there is a message, new or not. For the owner, who alone makes it untrue.
    bool HasInput() const noexcept;

  private:
    class Input : public Waitable {
      public:
        static constexpr ObjectKind Kind{
            .name = "message input", .closedByCloseHandle = false, .waitable = true};
        Input() : Waitable(Kind, TakesOne, 0) {}
    };

    mutable ObjectLock<> m_lock;
    bool m_open TQ_GUARDED_BY(m_lock) = false;
    bool m_quit TQ_GUARDED_BY(m_lock) = false;
    int m_exitCode TQ_GUARDED_BY(m_lock) = 0;
    std::deque<MSG> m_messages TQ_GUARDED_BY(m_lock){};
    Input m_newInput;
};

}  // namespace Quellan::Platform
