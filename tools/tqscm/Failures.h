// What is done after a service has failed: its failure actions, and ever later restarts of one that fails again
// and again.
#pragma once

#include "Starts.h"

namespace tqscm {

class Failures {
  public:
    Failures(Worker& worker, Processes& processes, ServiceStates& states, Starts& starts)
        : m_worker(worker), m_processes(processes), m_states(states), m_starts(starts) {}

    // Counts a failure, and sees to it that what is to be done for it is done when it is due.
    void Add(Service& service);
    // Does what is owed for the last failure when it is due.
    void SetAction(Service& service);

  private:
    void DoAction(Service& service);
    void RunCommand(const Service& service);

    Worker& m_worker;
    Processes& m_processes;
    ServiceStates& m_states;
    Starts& m_starts;
};

}  // namespace tqscm
