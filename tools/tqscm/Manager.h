// The service manager: one loop that serves those who ask and the processes of services, and what belongs to
// it.
//
// The loop's thread waits for nobody: what takes time goes on when its answer, its time or its process's end
// comes, or is done by a worker beside it. After the start no failure of the system ends it.
#pragma once

#include "Requests.h"

namespace tqscm {

class Manager {
  public:
    // Throws std::system_error where it cannot be this socket's manager.
    explicit Manager(Settings settings);

    // Until it is told to end by SIGTERM or SIGINT and the services have stopped.
    void Run();

  private:
    class Listener;
    class Signals;

    void GoOn();

    const Settings m_settings;
    const Descriptor m_lock;
    EventLoop m_loop;
    Worker m_worker{m_loop};
    Journal m_journal;
    ServiceTable m_table{m_loop};
    Supervisor m_supervisor{m_loop, m_settings, m_table, m_journal, m_worker};
    Records m_records{m_loop, m_table, m_journal, m_worker};
    Requests m_requests{m_loop, m_settings, m_table, m_supervisor, m_records};
    Timer m_journalAgain{m_loop};
};

}  // namespace tqscm
