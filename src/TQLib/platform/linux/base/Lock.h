// The plain lock of the layer, and the guard through which all of the layer's locks are taken.
#pragma once

#include "TQLib/platform/Compiler.h"

#include <mutex>

namespace Quellan::Platform {

// A std::mutex that the compiler's analysis knows.
class TQ_LOCK_CLASS PlainLock {
  public:
    void lock() TQ_ACQUIRES() TQ_NOT_ANALYSED { m_mutex.lock(); }
    bool try_lock() TQ_ACQUIRES_IF_TRUE TQ_NOT_ANALYSED { return m_mutex.try_lock(); }
    void unlock() TQ_RELEASES() TQ_NOT_ANALYSED { m_mutex.unlock(); }

  private:
    std::mutex m_mutex;
};

// Holds a lock from its construction to its destruction.
template <class Lock>
class [[nodiscard]] TQ_GUARD_CLASS Guard {
  public:
    explicit Guard(Lock& lock) TQ_ACQUIRES(lock) : m_lock(lock) { lock.lock(); }
    // One that the thread has already.
    Guard(Lock& lock, std::adopt_lock_t) TQ_REQUIRES(lock) : m_lock(lock) {}
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    ~Guard() TQ_RELEASES() TQ_NOT_ANALYSED { m_lock.unlock(); }

  private:
    Lock& m_lock;
};

}  // namespace Quellan::Platform
