// Starts: each service after what it needs, those that are automatic, and those that are owed.
#pragma once

#include "Processes.h"
#include "ServiceStates.h"
#include "ServiceTable.h"
#include "Settings.h"
#include "Worker.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tqscm {

// A start is owed from the request on, and done when the service's process has taken it.
class Starts {
  public:
    using Done = std::function<void(DWORD code)>;

    Starts(EventLoop& loop, const Settings& settings, ServiceTable& table, Worker& worker,
           Processes& processes, ServiceStates& states);

    // Those that start automatically, now and after the delay.
    void BeginAutomatic();
    // No service is started any more.
    void End();
    bool HaveEnded() const { return m_haveEnded; }

    // `done` hears of the end of it, unless it fails at once; it may never be called where the service waits
    // for others.
    DWORD Start(Service& service, std::vector<std::string> arguments, Done done);
    // A start that is owed and was not done.
    void Again(Service& service);
    // Where nobody is there to be told that there are too few resources for it.
    void TryLater(Service& service);
    static bool IsShortOfResources(DWORD code);

    // Goes on with the service and with those that wait for it.
    void OnChanged(const std::string& key);

  private:
    void StartAutomatic(bool delayed);
    void GoOn(Service& service);
    bool HasAccount(Service& service);
    DWORD Run(Service& service);
    void Fail(Service& service, DWORD code);

    const Settings& m_settings;
    ServiceTable& m_table;
    Worker& m_worker;
    Processes& m_processes;
    ServiceStates& m_states;
    std::map<std::string, std::set<std::string>> m_waiting;  // those that start, by what they wait for
    Timer m_delayed;
    bool m_haveEnded = false;
};

}  // namespace tqscm
