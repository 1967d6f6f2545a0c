// The services and their processes: what is concluded from what processes say and from their ends, what an earlier
// manager left, and the end of it all.
#pragma once

#include "Failures.h"

namespace tqscm {

class Supervisor : private ProcessOwner {
  public:
    Supervisor(EventLoop& loop, const Settings& settings, ServiceTable& table, Journal& journal,
               Worker& worker);

    // Finds the processes of an earlier manager again, and begins with what is to be done without being
    // asked: once all of them are back.
    void Begin();
    bool HaveBegun() const { return m_haveBegun; }
    // Called when they have.
    void WhenBegun(std::function<void()> then) { m_whenBegun = std::move(then); }
    // Called for a service with another state or check point.
    void WhenSeen(std::function<void(const Service&)> tell) { m_states.WhenSeen(std::move(tell)); }
    // Called for a service that is marked and stopped.
    void WhenUnused(std::function<void(Service&)> remove) { m_remove = std::move(remove); }

    // See Starts.
    DWORD Start(Service& service, std::vector<std::string> arguments, Starts::Done done) {
        return m_starts.Start(service, std::move(arguments), std::move(done));
    }
    // `done` hears the handler's answer, unless it fails at once.
    DWORD Control(Service& service, DWORD control, Starts::Done done);
    // Ends its process. Its failure actions are not done, those of others in the process are.
    DWORD Kill(Service& service);
    // Nothing is done for it any more but to delete it.
    void Mark(Service& service);

    // A process of services says that it is there: see Processes.
    DWORD Attach(Link& link, const AttachMessage& message) { return m_processes.Attach(link, message); }

    // Does what has become possible by what has changed.
    void GoOn();

    // Tells all to stop, ends those that have not after a while, and gives up those that cannot be ended.
    void BeginEnd();
    bool HaveEnded() const { return m_isEnding && (m_hasGivenUp || AreAllStopped()); }
    bool AreAllStopped() const;

  private:
    // Without a report of its own.
    void SetCrashed(Service& service, DWORD code);

    void OnReport(Process& process, const NamedStatus& reported) override;
    void OnTold(Process& process, const Command& command) override;
    void OnAnswer(Process& process, const Command& command, DWORD code) override;
    void OnStranger(Process& process, const std::vector<NamedStatus>& reported) override;
    void OnBack(Process& process, const std::vector<NamedStatus>& reported) override;
    void OnEnded(Process& process, DWORD code) override;

    void TakeOver(Service& service, const JournalEntry& entry);
    std::vector<Service*> ServicesOf(const std::vector<NamedStatus>& reported) const;
    void OnAllBack();
    void StopNext();

    ServiceTable& m_table;
    Journal& m_journal;
    Worker& m_worker;
    Processes m_processes;
    ServiceStates m_states;
    Starts m_starts;
    Failures m_failures;
    Timer m_endLimit;
    std::function<void()> m_whenBegun;
    std::function<void(Service&)> m_remove;
    bool m_haveBegun = false;
    bool m_isEnding = false;
    bool m_hasGivenUp = false;
};

}  // namespace tqscm
