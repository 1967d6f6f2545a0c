// The services: their states, and what is owed to them (starts, restarts after failures, their deletion).
//
// What is owed and what runs is in the journal before anybody hears of it, for the next manager to go on
// with.
#pragma once

#include "Processes.h"
#include "ServiceTable.h"
#include "TQLib/platform/Win32.h"
#include "Worker.h"

namespace tqscm {

class Supervisor : private ProcessOwner {
  public:
    using Done = std::function<void(DWORD code)>;

    Supervisor(EventLoop& loop, const Settings& settings, ServiceTable& table, Journal& journal,
               Worker& worker);

    // Finds the processes of an earlier manager again, and begins with what is to be done without being
    // asked: once all of them are back.
    void Begin();
    bool HaveBegun() const { return m_haveBegun; }
    // Called when they have.
    void WhenBegun(std::function<void()> then) { m_whenBegun = std::move(then); }
    // Called for a service with another state or check point.
    void WhenSeen(std::function<void(const Service&)> tell) { m_tell = std::move(tell); }
    // Called for a service that is marked and stopped.
    void WhenUnused(std::function<void(Service&)> remove) { m_remove = std::move(remove); }

    // `done` hears of the end of it, unless it fails at once; it may never be called where the service waits
    // for others.
    DWORD Start(Service& service, std::vector<std::string> arguments, Done done);
    // The same, with the handler's answer.
    DWORD Control(Service& service, DWORD control, Done done);
    // Ends its process. Its failure actions are not done, those of others in the process are.
    DWORD Kill(Service& service);
    // Nothing is done for it any more but to delete it.
    void Mark(Service& service);

    // A process of services says that it is there: see Processes.
    DWORD Attach(Link& link, const AttachMessage& message) { return m_processes.Attach(link, message); }

    // Something changed for which somebody may wait.
    void Changed(const Service& service) { m_news.insert(service.key); }
    // Does what has become possible by it.
    void GoOn();

    // Tells all to stop, ends those that have not after a while, and gives up those that cannot be ended.
    void BeginEnd();
    bool HaveEnded() const { return m_isEnding && (m_hasGivenUp || AreAllStopped()); }
    bool AreAllStopped() const;

  private:
    // Starting.
    void AutoStart(bool delayed);
    void GoOnStarting(Service& service);
    bool HasAccount(Service& service);
    DWORD RunService(Service& service);
    void StartAgain(Service& service);
    void EndStart(Service& service, DWORD code);
    void TryLater(Service& service);

    // States.
    void SetStatus(Service& service, const SERVICE_STATUS& status);
    void SetStopped(Service& service, DWORD code);
    void SetCrashed(Service& service, DWORD code);
    void WatchPending(Service& service);
    void OnHung(Service& service);

    // Failures.
    void OnFailure(Service& service);
    void SetAction(Service& service);
    static void DropAction(Service& service);
    void DoAction(Service& service);
    void RunFailureCommand(const Service& service);

    // Processes.
    void OnReport(Process& process, const NamedStatus& reported) override;
    void OnTold(Process& process, const Command& command) override;
    void OnAnswer(Process& process, const Command& command, DWORD code) override;
    void OnStranger(Process& process, const std::vector<NamedStatus>& reported) override;
    void OnBack(Process& process, const std::vector<NamedStatus>& reported) override;
    void OnEnded(Process& process, DWORD code) override;

    void TakeOver(Service& service, const JournalEntry& entry);
    std::vector<Service*> ServicesOf(const std::vector<NamedStatus>& reported) const;
    void OnAllBack();
    void Journalise(const Service& service);
    void StopNext();

    const Settings& m_settings;
    ServiceTable& m_table;
    Journal& m_journal;
    Worker& m_worker;
    Processes m_processes;
    std::set<std::string> m_news;                            // keys
    std::map<std::string, std::set<std::string>> m_waiting;  // those that start, by what they wait for
    Timer m_delayedStart;
    Timer m_endLimit;
    std::function<void()> m_whenBegun;
    std::function<void(const Service&)> m_tell;
    std::function<void(Service&)> m_remove;
    bool m_haveBegun = false;
    bool m_isEnding = false;
    bool m_hasGivenUp = false;
};

}  // namespace tqscm
