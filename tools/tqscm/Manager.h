// The service manager: its services, the processes it has started for them, and those who ask it.
//
// One thread serves everything and waits for nobody: what takes time goes on when its answer, its time or its
// process's end comes.
#pragma once

#include "EventLoop.h"
#include "Journal.h"
#include "Link.h"
#include "Store.h"

#include <deque>
#include <map>
#include <optional>

namespace tqscm {

using namespace Quellan::Corvel::Platform;

struct Settings {
    std::string socket;
    // For a program to call its dispatcher, a handler to answer, and for a service that reports nothing while
    // it is pending, unless its wait hint is longer.
    std::chrono::milliseconds requestLimit{30'000};
    // Until services with delayed automatic start are started.
    std::chrono::milliseconds autoStartDelay{120'000};
};

class Manager : public LinkOwner {
  public:
    // Throws std::system_error where it cannot be this socket's manager.
    explicit Manager(Settings settings);

    // Until it is told to end by SIGTERM or SIGINT and the services have stopped.
    void Run();

  private:
    struct Service;
    struct Process;
    class Listener;
    class Signals;

    // Something that a process is told and answers: to run a service, or to hand it a control.
    struct Command {
        std::string service;  // the key
        std::optional<DWORD> control;
        std::vector<std::string> arguments;
        int asker = -1;  // a link's descriptor; none where nobody waits for the answer
    };

    // Who asks (Requests.cpp).
    void OnConnection(Descriptor socket);
    void OnMessage(Link& link, const std::string& packet) override;
    void OnEnd(Link& link) override;
    DWORD ServeNew(Link& link, const std::string& packet);
    DWORD ServeManagerHandle(Link& link, const std::string& packet);
    DWORD ServeServiceHandle(Link& link, Service& service, const std::string& packet);
    DWORD Create(Link& link, const CreateServiceMessage& request);
    DWORD Change(Link& link, Service& service, const ServiceChange& change);
    DWORD Delete(Service& service);
    DWORD List(Link& link, const EnumServicesMessage& request);
    DWORD ListDependents(Link& link, const Service& service, const EnumDependentsMessage& request);
    DWORD AnswerName(Link& link, const FindNameMessage& request);
    DWORD ControlFor(Link& link, Service& service, DWORD control);
    void AnswerStatus(int asker, DWORD code, const Service& service);
    void Answer(int asker, std::string packet);
    void BecomeHandle(Link& link, Service& service, DWORD access);
    bool IsTrusted(const Link& link) const;

    // Records (Services.cpp).
    void LoadServices();
    DWORD CheckConfig(const std::string& key, const ServiceConfig& config) const;
    DWORD CheckDependencies(const std::string& key, const ServiceConfig& config) const;
    bool DependsOn(const ServiceConfig& config, const std::string& key, std::size_t depth) const;
    bool IsNameTaken(const std::string& key, const std::string& displayName) const;
    void DeleteIfUnused(Service& service);
    Service* Find(const std::string& key) const;
    std::vector<const Service*> DependentsOf(const Service& service) const;
    bool HasActiveDependents(const Service& service) const;

    // Starting and ending (Services.cpp).
    void AutoStart(bool delayed);
    DWORD BeginStart(Service& service, std::vector<std::string> arguments, int asker);
    void GoOnStarting(Service& service);
    DWORD RunService(Service& service);
    void EndStart(Service& service, DWORD code);
    void SetStatus(Service& service, const SERVICE_STATUS& status);
    void SetStopped(Service& service, DWORD code);
    void SetCrashed(Service& service, DWORD code);
    void OnFailure(Service& service);
    void RunFailureCommand(const Service& service, std::size_t failures);
    void Journalise(const Service& service);
    void GoOn();
    void BeginEnd();
    void StopNext();

    // Processes (Processes.cpp).
    Process* FindShared(const Service& service) const;
    DWORD StartProcess(Service& service);
    void AdoptProcesses();
    Process& AddProcess(pid_t pid, const std::string& commandLine, const std::string& account, bool isAlone);
    DWORD Attach(Link& link, const AttachMessage& message);
    void Detach(Process& process);
    void ServeStatus(Process& process, const NamedStatus& reported);
    void ServeProcess(Process& process, const std::string& packet);
    void EndCommand(Command& command, DWORD code);
    void OnDone(Process& process, DWORD code);
    void Tell(Process& process, Command command);
    void SetCommandLimit(Process& process);
    void SendNext(Process& process);
    void OnCommandLate(Process& process);
    void Leave(Service& service);
    void OnProcessEnd(Process& process);
    void EndExpecting(Process& process);
    Process* ProcessOf(const Link& link) const;

    const Settings m_settings;
    const Descriptor m_lock;
    EventLoop m_loop;
    Journal m_journal;
    std::map<std::string, std::unique_ptr<Service>> m_services;  // by key: the name without case
    std::map<pid_t, std::unique_ptr<Process>> m_processes;
    std::map<int, Link*> m_links;  // by descriptor
    Timer m_delayedStart{m_loop};
    Timer m_endLimit{m_loop};
    bool m_hasNews = false;   // a state changed, for which somebody may wait
    bool m_isEnding = false;  // it was told to end
};

// The same for every spelling of a name.
std::string KeyOf(const std::string& name);
bool IsServiceName(const std::string& name);

struct Manager::Service {
    explicit Service(EventLoop& loop) : action(loop), hang(loop) {}

    std::string key;
    std::string name;
    ServiceConfig config;
    SERVICE_STATUS status{};
    Process* process = nullptr;
    unsigned handles = 0;
    bool isMarked = false;  // to be deleted

    // From the request on until it has a process, in which it is pending.
    bool isStarting = false;
    bool isHung = false;  // pending, and nothing was reported for too long
    std::vector<std::string> arguments;
    int starter = -1;  // a link's descriptor

    // While the manager ends.
    bool wasToldToStop = false;

    std::size_t failures = 0;
    Clock::time_point lastFailure;
    Timer action;
    Timer hang;

    bool IsActive() const { return status.dwCurrentState != SERVICE_STOPPED; }
    bool IsUp() const {
        return IsActive() && status.dwCurrentState != SERVICE_START_PENDING &&
               status.dwCurrentState != SERVICE_STOP_PENDING;
    }
};

struct Manager::Process {
    explicit Process(EventLoop& loop) : limit(loop) {}

    ProcessId id;
    std::string commandLine;
    std::string account;
    bool isAlone = true;      // for one service
    bool isExpected = false;  // it was started by an earlier manager and has not attached again yet
    bool wasAttached = false;
    bool isFinishing = false;
    int link = -1;
    std::vector<Service*> services;
    std::deque<Command> commands;  // the first was sent when `isBusy`
    bool isBusy = false;
    Timer limit;
};

}  // namespace tqscm
