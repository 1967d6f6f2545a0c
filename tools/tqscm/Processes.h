// The processes of services: what they are told, and what they say.
#pragma once

#include "Journal.h"
#include "Launch.h"
#include "Link.h"
#include "Settings.h"
#include "TQLib/platform/Win32.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace tqscm {

using namespace Quellan::Platform;

class Process;
struct Service;

// Something that a process is told and answers: to run a service, or to hand it a control.
struct Command {
    std::string key;  // of the service
    std::string name;
    std::optional<DWORD> control;
    std::vector<std::string> arguments;
    // Who waits for the answer: called once at most, with the handler's or 1053
    // (ERROR_SERVICE_REQUEST_TIMEOUT), 1062 (ERROR_SERVICE_NOT_ACTIVE), 1067 (ERROR_PROCESS_ABORTED).
    std::function<void(DWORD code)> done;
    Clock::time_point deadline = {};
    bool isLate = false;  // who waited has been told so
};

// Who hears of processes.
class ProcessOwner {
  public:
    virtual ~ProcessOwner() = default;
    // A service's report.
    virtual void OnReport(Process& process, const NamedStatus& reported) = 0;
    // It is told now to run the service, or to hand it a control.
    virtual void OnTold(Process& process, const Command& command) = 0;
    // It has answered. Also for what was never told it, with the code why.
    virtual void OnAnswer(Process& process, const Command& command, DWORD code) = 0;
    // One that this socket's managers know nothing of says what was started in it. It waits until it is told
    // by `Know` what it is, or is killed.
    virtual void OnStranger(Process& process, const std::vector<NamedStatus>& reported) = 0;
    // It was there under an earlier manager, or its connection ended: what was started in it.
    virtual void OnBack(Process& process, const std::vector<NamedStatus>& reported) = 0;
    // It has ended, its services with it; with what kept it from running its program, with 1053 where it did not
    // connect or hung. It is gone after this.
    virtual void OnEnded(Process& process, DWORD code) = 0;
};

class Processes;

class Process : public LinkOwner {
  public:
    Process(EventLoop& loop, const Settings& settings, Processes& all, ProcessId id, std::string commandLine,
            std::string account, bool isAlone);
    ~Process() override;

    const ProcessId id;
    // What the services that share it have in common; nothing before a stranger is known.
    std::string commandLine;
    std::string account;
    bool isAlone;  // for one service
    std::vector<Service*> services;

    // To this manager or to an earlier one.
    bool WasConnected() const { return m_wasConnected; }
    // It served under an earlier manager and has not connected to this one yet.
    bool IsExpected() const { return m_isExpected; }
    // Counted, their ends too, to know one from the next.
    unsigned Connections() const { return m_connections; }
    // Of who connected.
    uid_t User() const { return m_link->User(); }
    // A stranger becomes one of those that were there before: as such it is back.
    void Know(const ServiceConfig* config, const std::vector<NamedStatus>& reported);

    void Tell(Command command);
    // Whether it is to be told to run the service.
    bool WillRun(const std::string& key) const;
    // A service has stopped and is no longer this one's. What was not told yet is not told any more.
    void Release(Service& service);
    // With all that it has started and that stays in its group. 1053 is said to be its services' exit code.
    void EndHung();
    void Kill() const;

    void OnMessage(Link& link, const std::string& packet) override;
    void OnEnd(Link& link) override;

  private:
    friend class Processes;

    void Serve(Link& link, const std::string& packet);
    void WaitToConnect();
    void Expect();
    void EndExpecting();
    void Connect(Link& link, const AttachMessage& message);
    void Begin();
    void SendNext();
    void SetCommandLimit();
    void OnCommandsLate();
    void OnDone(DWORD code);
    void Finish(const Command& command, DWORD code);

    const Settings& m_settings;
    Processes& m_all;
    Link* m_link = nullptr;
    unsigned m_connections = 0;
    bool m_isStranger = false;
    bool m_isExpected = false;
    bool m_wasConnected = false;
    bool m_isFinishing = false;
    DWORD m_endCode = ERROR_PROCESS_ABORTED;
    Launched m_launched;             // until it connects
    std::deque<Command> m_commands;  // the first was sent when `m_isBusy`
    bool m_isBusy = false;
    Timer m_limit;         // to connect, and to end in the end
    Timer m_commandLimit;  // of the first that was not answered in time
};

class Processes {
  public:
    Processes(EventLoop& loop, const Settings& settings, ProcessOwner& owner)
        : m_loop(loop), m_settings(settings), m_owner(owner) {}

    // One that services with this command line share; none that is about to end.
    Process* FindShared(const std::string& commandLine) const;
    Process* Find(ProcessId id) const;
    // Starts the program; it has to connect. What `Launch` returns; a program that cannot be run is heard of by the
    // process's end.
    DWORD Start(const ServiceConfig& config, const Account& account, Process*& process);
    // Runs a command that is no service.
    DWORD RunCommand(const std::string& commandLine, const Account& account);
    // One that an earlier manager has started and that is expected to connect.
    Process& Adopt(const JournalEntry& entry);

    // Those that earlier managers have started and nobody has told this one of.
    void AdoptStrangers();

    // Whether none is expected any more. `then` is called once they are, and never from here.
    bool AreAllBack() const;
    void WhenAllBack(std::function<void()> then) { m_whenAllBack = std::move(then); }

    // A process says that it is there. 1063 (ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) for one that was not
    // started for services; otherwise the link is the process's from now on.
    DWORD Attach(Link& link, const AttachMessage& message);
    // All that have services.
    void KillAll() const;

  private:
    friend class Process;

    Process& Add(ProcessId id, const std::string& commandLine, const std::string& account, bool isAlone);
    void WatchEnd(Process& process);
    void OnEnded(Process& process);
    void OnNoLongerExpected();

    EventLoop& m_loop;
    const Settings& m_settings;
    ProcessOwner& m_owner;
    std::vector<std::unique_ptr<Process>> m_processes;
    std::function<void()> m_whenAllBack;
};

}  // namespace tqscm
