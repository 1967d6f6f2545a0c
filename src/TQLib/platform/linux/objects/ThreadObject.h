// Threads as objects: what a thread's handle names, and what a thread itself needs for its waits.
#pragma once

#include "TQLib/platform/linux/base/Identity.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/objects/CompletionPort.h"
#include "TQLib/platform/linux/objects/MessageQueue.h"
#include "TQLib/platform/linux/objects/Threads.h"
#include "TQLib/platform/linux/objects/WaitEngine.h"

#include <csetjmp>
#include <map>
#include <pthread.h>

namespace Quellan::Platform {

// Made by CreateThread, or by the thread itself when it first needs one. Lives until the thread has ended and
// the last handle is closed. For several threads, except where it says "own thread".
class Thread : public Waitable {
  public:
    static constexpr ObjectKind Kind{
        .name = "thread",
        .closedByCloseHandle = true,
        .waitable = true,
        .rights = {.read = READ_CONTROL | THREAD_QUERY_INFORMATION | THREAD_QUERY_LIMITED_INFORMATION,
                   .write = READ_CONTROL | THREAD_TERMINATE | THREAD_SUSPEND_RESUME | THREAD_SET_INFORMATION,
                   .execute = READ_CONTROL | SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION,
                   .all = THREAD_ALL_ACCESS}};

    struct Times {
        FILETIME creation;
        FILETIME exit;
        FILETIME kernel;
        FILETIME user;
    };

    // The calling thread; null when there is no memory for it.
    static Thread* Current() noexcept;
    // Living threads only.
    static std::shared_ptr<Thread> Find(DWORD id) noexcept;

    // Before and after a fork.
    static void Hold() noexcept TQ_ACQUIRES(s_mapLock) { s_mapLock.lock(); }
    static void AfterFork(bool isChild) noexcept TQ_RELEASES(s_mapLock);

    // May throw std::bad_alloc.
    Thread(LPTHREAD_START_ROUTINE function, void* parameter, bool suspended);

    // Starts the thread, which has its id then. 8 (ERROR_NOT_ENOUGH_MEMORY).
    DWORD Start(SIZE_T stackSize) noexcept;
    DWORD Id() const noexcept { return m_id.load(std::memory_order_relaxed); }
    DWORD ExitCode() const noexcept;
    DWORD Resume(DWORD& previous) noexcept;
    DWORD Suspend(DWORD& previous) noexcept;
    Times ReadTimes() noexcept;
    DWORD SetPriority(int priority) noexcept;
    int Priority() const noexcept { return m_priority.load(std::memory_order_relaxed); }
    Waiter& AsWaiter() noexcept { return m_waiter; }  // own thread
    PortSeat& Seat() noexcept { return m_seat; }      // own thread
    MessageQueue& Messages() noexcept { return m_messages; }
    // The token of whom it impersonates, or null.
    std::shared_ptr<Object> Token() noexcept;
    void SetToken(std::shared_ptr<Object> token) noexcept;  // own thread
    [[noreturn]] void Exit(DWORD exitCode);                 // own thread

  private:
    friend struct ThreadMap;
    using MapEntry = std::map<DWORD, std::weak_ptr<Thread>>::node_type;

    static void* Main(void* thread);
    static void AtThreadEnd(void* thread) noexcept;
    static pthread_key_t EndKey() noexcept;

    bool Adopt() noexcept;
    void Register(DWORD id) noexcept;
    void ApplyPriority() noexcept;
    void WaitForStart() noexcept;
    void End() noexcept;

    static constinit inline PlainLock s_mapLock;

    const LPTHREAD_START_ROUTINE m_function;  // null: not started by Start
    const std::shared_ptr<const OwnIdentity> m_ownIdentity = OwnIdentityForNewThread();
    void* const m_parameter;
    Word m_id{0};
    Word m_suspended;  // a count, perhaps with Asleep, or HasBegun
    std::jmp_buf m_exit;
    std::atomic<int> m_priority{THREAD_PRIORITY_NORMAL};
    std::atomic<bool> m_reniced{false};  // by the thread that made it, at first
    Waiter m_waiter;
    PortSeat m_seat{m_waiter};
    MessageQueue m_messages;
    int m_endRounds = 0;
    MapEntry m_mapEntry TQ_GUARDED_BY(s_mapLock);  // until the thread has its id
    Word m_known{0};                 // once its maker has done with the system's own name for the thread
    std::shared_ptr<Thread> m_self;  // until the thread has ended

    ObjectLock<> m_tokenLock;
    std::shared_ptr<Object> m_token TQ_GUARDED_BY(m_tokenLock);

    ObjectLock<> m_timesLock;
    Times m_times TQ_GUARDED_BY(m_timesLock){};  // complete once the thread has ended
    bool m_ended TQ_GUARDED_BY(m_timesLock) = false;
    std::atomic<DWORD> m_exitCode{STILL_ACTIVE};
    DWORD m_result = 0;  // own thread: the exit code to be
};

}  // namespace Quellan::Platform
