// The states of the services, and the time that one which is pending has.
#pragma once

#include "Journal.h"
#include "Processes.h"
#include "ServiceTable.h"
#include "Settings.h"

#include <functional>
#include <optional>
#include <set>
#include <string>

namespace tqscm {

// A change is in the journal before anybody hears of it, for the next manager to go on with.
class ServiceStates {
  public:
    ServiceStates(const Settings& settings, Journal& journal) : m_settings(settings), m_journal(journal) {}

    // Called for a service with another state or check point.
    void WhenSeen(std::function<void(const Service&)> tell) { m_tell = std::move(tell); }

    void Set(Service& service, const SERVICE_STATUS& status);
    void SetStopped(Service& service, DWORD code);
    // Gives the service its time from now on to report progress.
    void WatchPending(Service& service);
    // All that the next manager is to know of the service.
    void Journalise(const Service& service);

    // Something changed for which somebody may wait.
    void Changed(const Service& service) { m_changed.insert(service.key); }
    bool HaveChanged() const { return !m_changed.empty(); }
    // The key of one that has changed, each once.
    std::optional<std::string> NextChanged();

  private:
    void OnHung(Service& service);

    const Settings& m_settings;
    Journal& m_journal;
    std::set<std::string> m_changed;  // keys
    std::function<void(const Service&)> m_tell;
};

}  // namespace tqscm
