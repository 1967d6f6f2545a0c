// What becomes of the layer when the process forks.
//
// Before a fork the forking thread takes the layer's process-wide locks and waits until nobody is inside of a
// single object's, so that the child finds nothing half changed; afterwards both processes give them back,
// and the child mends what it must not share with its parent: ids, descriptors, threads.
#pragma once

#include "TQLib/platform/linux/base/CriticalSections.h"
#include "TQLib/platform/linux/base/Descriptor.h"
#include "TQLib/platform/linux/base/Lock.h"

#include <atomic>
#include <cstdint>
#include <utility>

namespace Quellan::Platform {

inline constinit std::atomic<std::uint32_t> g_forkGeneration = 0;  // changed in the child of a fork

// Differs between a process and the child of its fork. For whatever kept a process or thread id, or a state
// that only a thread of the parent could end.
inline std::uint32_t ForkGeneration() noexcept {
    return g_forkGeneration.load(std::memory_order_relaxed);
}

// In the order in which a fork takes the locks: whoever holds one takes only those below it.
enum class ForkOrder : std::uint8_t {
    ControlHandlers,
    NamedObjects,
    NamedObjectInit,
    Directory,
    Reservations,
    Modules,
    Environment,
    Threads,
    SingleObjects,
    JoinedObjects,
    Handles,
    SignalWords,
    AlternateStacks,
    Descriptors,
    Ids,
};

// A part of the layer that a fork concerns: an object of namespace scope, there from the loading of the
// library on. `prepare` may be null; `resume` is told whether it runs in the child. They are called in the
// thread that forks, the innermost part resumes first, and in the child nothing may be allocated.
class ForkPart {
  public:
    using Prepare = void (*)() noexcept;
    using Resume = void (*)(bool isChild) noexcept;

    ForkPart(ForkOrder order, Prepare prepare, Resume resume) noexcept;
    ForkPart(const ForkPart&) = delete;
    ForkPart& operator=(const ForkPart&) = delete;

  private:
    struct Registration;

    const ForkOrder m_order;
    const Prepare m_prepare;
    const Resume m_resume;
    ForkPart* m_outer = nullptr;
    ForkPart* m_inner = nullptr;
};

// A part that is nothing but a lock of namespace scope.
template <auto& Lock>
class ForkLock {
  public:
    explicit ForkLock(ForkOrder order) noexcept : m_part(order, &ForkLock::Hold, &ForkLock::Resume) {}

  private:
    static void Hold() noexcept TQ_NOT_ANALYSED { Lock.lock(); }
    static void Resume(bool) noexcept TQ_NOT_ANALYSED { Lock.unlock(); }

    const ForkPart m_part;
};

// While one exists the process does not fork: the child finds what the thread changes as it was before or as
// it is after it. For what takes moments and waits for nothing but the locks below it in ForkOrder. A thread
// may have several at once.
class WithoutFork {
  public:
    WithoutFork() noexcept { Begin(); }
    ~WithoutFork() { End(); }
    WithoutFork(const WithoutFork&) = delete;
    WithoutFork& operator=(const WithoutFork&) = delete;

    static void Begin() noexcept {
        if (t_place.depth++ != 0) return;
        if (Line* const line = t_place.line) {
            line->inside.store(1, std::memory_order_relaxed);
            // The memory barrier that a fork makes all threads pass turns this into one for the processor.
            std::atomic_signal_fence(std::memory_order_seq_cst);
            if (!s_isForking.load(std::memory_order_relaxed)) return;
        }
        BeginSlowly();
    }
    // The thread is about to end: whoever takes its place need not ask whether it has.
    static void GiveUpPlace() noexcept {
        Line* const line = std::exchange(t_place.line, nullptr);
        if (line) line->thread.store(0, std::memory_order_release);
    }
    static void End() noexcept {
        if (--t_place.depth != 0) return;
        if (t_place.line)
            t_place.line->inside.store(0, std::memory_order_release);
        else
            s_counted.fetch_sub(1, std::memory_order_release);
    }

  private:
    friend struct ForksOfObjects;

    // Where a thread tells that it is inside. It is the only one to write there.
    struct alignas(64) Line {
        std::atomic<std::uint32_t> inside;
        std::atomic<pid_t> thread;  // which may have ended
    };
    struct Place {
        unsigned depth;
        Line* line;
        bool isCounted;  // it has no line
    };

    static void BeginSlowly() noexcept;

    TQ_THERE_WITH_THREAD static constinit inline thread_local Place t_place{};
    static constinit inline std::atomic<bool> s_isForking = false;
    // How many threads without a line are inside.
    static constinit inline std::atomic<std::uint32_t> s_counted = 0;
};

// The lock of a single object, which nobody holds while the process forks.
template <class Lock = PlainLock>
class TQ_LOCK_CLASS ObjectLock {
  public:
    void lock() noexcept TQ_ACQUIRES() TQ_NOT_ANALYSED {
        WithoutFork::Begin();
        m_lock.lock();
    }
    void unlock() noexcept TQ_RELEASES() TQ_NOT_ANALYSED {
        m_lock.unlock();
        WithoutFork::End();
    }

  private:
    Lock m_lock;
};

// The lock of a single object that is held over waits: a fork does not wait for it, and it is free in the
// child. What it guards is changed WithoutFork.
class TQ_LOCK_CLASS LongLock {
  public:
    LongLock() noexcept {
        InitializeCriticalSection(&m_section);
        m_section.Watched = FALSE;
    }
    LongLock(const LongLock&) = delete;
    LongLock& operator=(const LongLock&) = delete;

    void lock() noexcept TQ_ACQUIRES() TQ_NOT_ANALYSED { EnterCriticalSection(&m_section); }
    void unlock() noexcept TQ_RELEASES() TQ_NOT_ANALYSED { LeaveCriticalSection(&m_section); }

  private:
    CRITICAL_SECTION m_section;
};

// The descriptor of a file whose position and locks are this process's alone. The kernel counts both to the
// open file, which the child of a fork shares: so what is locked through it is unlocked before it is closed,
// and the child opens the file anew in the same place, with the same position and without any lock.
//
// Where the child cannot do that (it may not open the file any more, there are no descriptors or no /proc)
// both go on with one open file, and the child has no locks there. Files that are not plain ones are shared.
//
// What only a thread of the parent uses the child closes and forgets: the object may lie on that thread's
// stack.
class ProcessDescriptor {
  public:
    // A parent that awaits its child goes on once the child has what it needs, so that it cannot give up
    // before what the child is about to take.
    enum class Parent { GoesOn, AwaitsChild };
    enum class Child { OpensAnew, Closes };

    explicit ProcessDescriptor(Descriptor descriptor, Parent parent = Parent::GoesOn,
                               Child child = Child::OpensAnew) noexcept;
    ProcessDescriptor(const ProcessDescriptor&) = delete;
    ProcessDescriptor& operator=(const ProcessDescriptor&) = delete;
    virtual ~ProcessDescriptor();

    int Get() const noexcept { return m_descriptor.Get(); }
    const Descriptor& File() const noexcept { return m_descriptor; }
    // False in a child that shares the open file with its parent: its locks exclude nobody there.
    bool OwnsLocks() const noexcept { return m_ownsLocks; }

  protected:
    // In the child. `fresh` is about to take the descriptor's place, or is empty where it could not be had.
    virtual void OpenAnew(const Descriptor& fresh) noexcept;

  private:
    friend struct ProcessDescriptors;

    Descriptor m_descriptor;
    bool m_ownsLocks = true;
    const Parent m_parent;
    const Child m_child;
    ProcessDescriptor* m_previous = nullptr;
    ProcessDescriptor* m_next = nullptr;
};

}  // namespace Quellan::Platform
