// What becomes of the layer when the process forks.
//
// Before a fork the forking thread takes the layer's process-wide locks, so that the child finds nothing half
// changed; afterwards both processes give them back, and the child mends what it must not share with its
// parent. A child of a process with threads of its own should still do no more than exec: the locks of single
// objects may be held by threads that it does not have.
#pragma once

#include <cstdint>

namespace Quellan::Corvel::Platform {

// Differs between a process and the child of its fork. For whatever kept a process or thread id, or a state
// that only a thread of the parent could end.
std::uint32_t ForkGeneration() noexcept;

// In the order in which a fork takes the locks: whoever holds one takes only those below it.
enum class ForkOrder : std::uint8_t {
    Ids,
};

// A part of the layer that a fork concerns: an object of namespace scope, there from the loading of the
// library on. `prepare` may be null; `resume` is told whether it runs in the child. They are called in the
// thread that forks and may allocate nothing.
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

}  // namespace Quellan::Corvel::Platform
