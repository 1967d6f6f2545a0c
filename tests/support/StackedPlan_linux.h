// What is planned to fail on one thread.
#pragma once

#include <utility>

namespace Quellan::Corvel::Test {

// `Base` with its plan on its thread's stack of plans, from construction to destruction.
template <class Base, class Planned>
class StackedPlan : public Base {
  public:
    using StackOfThread = Planned*& (*)() noexcept;

    StackedPlan(StackOfThread stack, Planned planned) : m_stack(stack), m_planned(planned) {
        m_planned.next = std::exchange(m_stack(), &m_planned);
    }
    // The stack of a thread that has ended is gone.
    ~StackedPlan() override {
        if (m_stack() == &m_planned) m_stack() = m_planned.next;
    }
    unsigned Calls() const noexcept override { return m_planned.calls; }

  private:
    StackOfThread m_stack;
    Planned m_planned;
};

}  // namespace Quellan::Corvel::Test
