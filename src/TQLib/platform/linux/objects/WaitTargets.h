// The objects behind the handles of one wait, kept alive for its time.
#pragma once

#include "TQLib/platform/linux/objects/WaitEngine.h"

namespace Quellan::Platform {

class WaitTarget {
  public:
    // 6 (ERROR_INVALID_HANDLE), or 5 (ERROR_ACCESS_DENIED) for a handle without SYNCHRONIZE. The pseudo
    // handle of the calling thread counts.
    DWORD Open(HANDLE handle) noexcept;
    Waitable* Get() const noexcept { return m_object; }

  private:
    HandleUse m_use;
    Waitable* m_object = nullptr;
};

class WaitTargets {
  public:
    // 87 (ERROR_INVALID_PARAMETER) unless there are 1 to 64, and for an object that comes twice in a wait for
    // all.
    DWORD Open(DWORD count, const HANDLE* handles, bool all) noexcept;
    // Adds an object that its owner keeps alive. Only while there are fewer than 64.
    void Append(Waitable& object) noexcept { m_objects[m_count++] = &object; }
    std::span<Waitable* const> Objects() const noexcept { return std::span(m_objects).first(m_count); }

  private:
    std::size_t m_count = 0;
    std::array<Waitable*, MAXIMUM_WAIT_OBJECTS> m_objects;
    std::array<WaitTarget, MAXIMUM_WAIT_OBJECTS> m_targets;
};

}  // namespace Quellan::Platform
