// The objects behind the handles of one wait, kept alive for its time.
#pragma once

#include "TQLib/platform/linux/objects/WaitEngine.h"

#include <memory>

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
    WaitTargets() noexcept {}
    WaitTargets(const WaitTargets&) = delete;
    WaitTargets& operator=(const WaitTargets&) = delete;
    ~WaitTargets() { std::destroy_n(m_targets, m_opened); }

    // 87 (ERROR_INVALID_PARAMETER) unless there are 1 to 64, and for an object that comes twice in a wait for
    // all.
    DWORD Open(DWORD count, const HANDLE* handles, bool all) noexcept;
    // Adds an object that its owner keeps alive. Only while there are fewer than 64.
    void Append(Waitable& object) noexcept { m_objects[m_count++] = &object; }
    std::span<Waitable* const> Objects() const noexcept { return std::span(m_objects).first(m_count); }

  private:
    std::size_t m_count = 0;
    std::size_t m_opened = 0;
    std::array<Waitable*, MAXIMUM_WAIT_OBJECTS> m_objects;
    union {
        WaitTarget m_targets[MAXIMUM_WAIT_OBJECTS];  // so many as were opened: most waits have few
    };
};

}  // namespace Quellan::Platform
