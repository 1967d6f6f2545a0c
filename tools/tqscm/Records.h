// The records of services: created, changed and deleted, one after the other, beside the loop.
#pragma once

#include "Journal.h"
#include "ServiceTable.h"
#include "TQLib/platform/Win32.h"
#include "Worker.h"

#include <deque>

namespace tqscm {

class Records {
  public:
    using Done = std::function<void(DWORD code)>;

    Records(EventLoop& loop, ServiceTable& table, Journal& journal, Worker& worker)
        : m_table(table), m_journal(journal), m_worker(worker), m_again(loop) {}

    // At the start.
    void Load();

    // Each is checked when those before it are done, and is in the registry when `done` is called.
    void Create(const std::string& name, const ServiceConfig& config, Done done);
    void Change(const std::string& key, const ServiceChange& change, Done done);
    // The service is deleted later, when nobody uses it any more.
    void Mark(const std::string& key, Done done);
    // Deletes a service that is marked and unused, and tries again where the registry does not let it.
    void Delete(Service& service);

  private:
    using Work = std::function<DWORD()>;
    struct Task {
        std::function<DWORD(Work& work)> check;  // on the loop's thread
        Done done;
    };

    void Add(Task task);
    void Next();
    DWORD Check(const std::string& key, const ServiceConfig& config) const;
    void OnDeleted(Service& service, DWORD code);

    ServiceTable& m_table;
    Journal& m_journal;
    Worker& m_worker;
    std::deque<Task> m_tasks;
    bool m_isBusy = false;
    std::set<std::string> m_undeleted;  // keys
    Timer m_again;
};

}  // namespace tqscm
