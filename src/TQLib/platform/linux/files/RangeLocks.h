// Exclusive locks on ranges of a file's bytes, against other processes and against other threads.
//
// The system's locks belong to an open file description: they tell processes and handles apart, not the
// threads that share a handle. So each handle keeps a list of what is locked through it.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/base/Futex.h"

#include <cstdint>
#include <vector>

namespace Quellan::Platform {

// The locks taken through one handle. For several threads.
class RangeLocks {
  public:
    // Waits until `deadline`, or with 0 only looks. 33 (ERROR_LOCK_VIOLATION) when the time is up, 5
    // (ERROR_ACCESS_DENIED) for a descriptor that cannot be written, 87 (ERROR_INVALID_PARAMETER) for an
    // empty range and one that reaches the layer's own bytes. May throw std::bad_alloc.
    DWORD Lock(int fd, std::uint64_t begin, std::uint64_t size, Deadline deadline);
    // 158 (ERROR_NOT_LOCKED) for what is not exactly one of the locked ranges.
    DWORD Unlock(int fd, std::uint64_t begin, std::uint64_t size) noexcept;
    // In the child of a fork, whose file is another open one: the ranges are its parent's.
    void Forget() noexcept TQ_NOT_ANALYSED {
        m_held.clear();
        m_waiting = 0;
    }

  private:
    struct Range {
        std::int64_t begin;
        std::int64_t size;

        bool operator==(const Range&) const = default;
        bool Meets(const Range& other) const noexcept {
            return begin < other.begin + other.size && other.begin < begin + size;
        }
    };

    // False when the time is up.
    bool Enter(const Range& range, Deadline deadline);
    void Leave(const Range& range) noexcept;

    ObjectLock<> m_lock;
    Word m_left{0};  // changes when a range is left
    std::vector<Range> m_held TQ_GUARDED_BY(m_lock);
    unsigned m_waiting TQ_GUARDED_BY(m_lock) = 0;
};

}  // namespace Quellan::Platform
