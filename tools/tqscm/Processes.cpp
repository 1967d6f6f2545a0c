// The processes of services, and what they are told and say.
#include "ChildEnd.h"
#include "Launch.h"
#include "Manager.h"
#include "Print.h"

#include <algorithm>
#include <csignal>

namespace tqscm {

namespace {

// In which the processes of an earlier manager are back, unless they hang.
constexpr std::chrono::seconds ExpectLimit{5};

}  // namespace

Manager::Process* Manager::ProcessOf(const Link& link) const {
    const auto found = m_processes.find(link.Process());
    const bool isIts = found != m_processes.end() && found->second->link == link.Fd();
    return isIts ? found->second.get() : nullptr;
}

Manager::Process& Manager::AddProcess(pid_t pid, const std::string& commandLine, const std::string& account,
                                      bool isAlone) {
    auto process = std::make_unique<Process>(m_loop);
    process->id = IdOf(pid);
    process->commandLine = commandLine;
    process->account = account;
    process->isAlone = isAlone;
    Process& added = *process;
    m_processes.insert_or_assign(pid, std::move(process));
    ChildEnd::Watch(m_loop, pid, [this, &added] { OnProcessEnd(added); });
    return added;
}

// One that services with this command line share; none that is about to end.
Manager::Process* Manager::FindShared(const Service& service) const {
    if (service.config.type != SERVICE_WIN32_SHARE_PROCESS) return nullptr;
    for (const auto& [pid, process] : m_processes)
        if (!process->isAlone && !process->isFinishing && process->commandLine == service.config.commandLine)
            return process.get();
    return nullptr;
}

DWORD Manager::StartProcess(Service& service) {
    Process* process = FindShared(service);
    if (process && KeyOf(process->account) != KeyOf(service.config.account))
        return ERROR_DIFFERENT_SERVICE_ACCOUNT;
    if (!process) {
        pid_t pid = 0;
        const ServiceConfig& config = service.config;
        Account account;
        if (FindAccount(config.account, account)) return ERROR_SERVICE_LOGON_FAILED;
        if (DWORD code = Launch(config.commandLine, account, m_settings.socket, pid)) return code;
        process =
            &AddProcess(pid, config.commandLine, config.account, config.type == SERVICE_WIN32_OWN_PROCESS);
        // It has not called its dispatcher in time. Its end is what is answered.
        process->limit.Set(m_settings.requestLimit, [pid] { kill(-pid, SIGKILL); });
    }
    service.process = process;
    process->services.push_back(&service);
    return ERROR_SUCCESS;
}

// Those of an earlier manager that still run. Services that were in others have ended without a report.
void Manager::AdoptProcesses() {
    for (const auto& [name, entry] : Journal::Entries(m_journal.All())) {
        Service* const service = Find(KeyOf(name));
        if (!service) continue;
        service->status = entry.status;
        if (!service->IsActive()) continue;
        const pid_t pid = entry.process.pid;
        const auto known = m_processes.find(pid);
        const bool isThere = known != m_processes.end();
        if (!isThere && !(entry.process.startTime && IdOf(pid) == entry.process)) {
            SetCrashed(*service, ERROR_PROCESS_ABORTED);
            continue;
        }
        Process& process =
            isThere ? *known->second : AddProcess(pid, entry.commandLine, entry.account, entry.isAlone != 0);
        process.isExpected = true;
        process.wasAttached = true;
        process.limit.Set(ExpectLimit, [this, &process] { EndExpecting(process); });
        process.services.push_back(service);
        service->process = &process;
    }
}

void Manager::EndExpecting(Process& process) {
    if (!std::exchange(process.isExpected, false)) return;
    process.limit.Cancel();
    const bool mustWait =
        std::ranges::any_of(m_processes, [](const auto& other) { return other.second->isExpected; });
    if (mustWait) return;
    std::vector<Link*> held;
    for (const auto& [fd, link] : m_links)
        if (!link->held.empty()) held.push_back(link);
    for (Link* const link : held) {
        link->GoOn();
        OnMessage(*link, std::exchange(link->held, {}));
    }
    AutoStart(false);
}

// A process says that it is there. Only those that were started for services are believed.
DWORD Manager::Attach(Link& link, const AttachMessage& message) {
    const auto found = m_processes.find(link.Process());
    if (message.version != ServiceProtocolVersion || found == m_processes.end())
        return ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    Process& process = *found->second;
    if (process.link >= 0 || process.isFinishing) return ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    process.limit.Cancel();
    process.link = link.Fd();
    process.isBusy = false;
    link.role = Link::Role::Process;
    Answer(link.Fd(), FormatMessage(ReplyMessage{ERROR_SUCCESS}));
    const bool isBack = std::exchange(process.wasAttached, true);
    for (const NamedStatus& reported : message.services)
        ServeStatus(process, reported);
    if (isBack) {
        // What an earlier manager did not come to tell it.
        for (Service* const service : std::vector(process.services)) {
            const bool isKnown = std::ranges::any_of(message.services, [&](const NamedStatus& reported) {
                return KeyOf(reported.name) == service->key;
            });
            if (!isKnown) SetStopped(*service, ERROR_PROCESS_ABORTED);
        }
        EndExpecting(process);
    }
    SendNext(process);
    return ERROR_SUCCESS;
}

void Manager::ServeStatus(Process& process, const NamedStatus& reported) {
    Service* const service = Find(KeyOf(reported.name));
    const DWORD state = reported.status.dwCurrentState;
    if (!service || service->process != &process || state < SERVICE_STOPPED || state > SERVICE_PAUSED) return;
    const bool wasActive = service->IsActive();
    SetStatus(*service, reported.status);
    const bool hasFailed =
        wasActive && !service->IsActive() && reported.status.dwWin32ExitCode != ERROR_SUCCESS;
    if (hasFailed && service->config.failsWithoutCrash) OnFailure(*service);
}

void Manager::ServeProcess(Process& process, const std::string& packet) {
    StatusMessage status;
    DoneMessage done;
    if (ParseMessage(packet, status)) {
        ServeStatus(process, status.service);
    } else if (ParseMessage(packet, done) && process.isBusy) {
        OnDone(process, done.code);
    } else {
        // Nothing that it says can be believed.
        Print("process %d said what makes no sense and is ended", static_cast<int>(process.id.pid));
        kill(process.id.pid, SIGKILL);
    }
}

void Manager::Tell(Process& process, Command command) {
    process.commands.push_back(std::move(command));
    if (!process.isBusy) return SendNext(process);
    // What it is at has taken too long already.
    if (!process.limit.IsSet()) SetCommandLimit(process);
}

void Manager::SetCommandLimit(Process& process) {
    process.limit.Set(m_settings.requestLimit, [this, &process] { OnCommandLate(process); });
}

// It has gone, or will be back as after another manager: it does not know any more what it was told.
void Manager::Detach(Process& process) {
    process.link = -1;
    if (!std::exchange(process.isBusy, false)) return;
    process.limit.Cancel();
    Command command = std::move(process.commands.front());
    process.commands.pop_front();
    EndCommand(command, ERROR_PROCESS_ABORTED);
}

// One at a time, as the process serves them.
void Manager::SendNext(Process& process) {
    const auto found = m_links.find(process.link);
    if (found == m_links.end() || process.isBusy || process.isFinishing) return;
    if (process.commands.empty()) {
        if (!process.services.empty()) return;
        process.isFinishing = true;
        return found->second->Send(FormatMessage(FinishMessage()));
    }
    const Command& command = process.commands.front();
    const Service* const service = Find(command.service);
    const std::string name = service ? service->name : command.service;
    process.isBusy = true;
    found->second->Send(command.control ? FormatMessage(ControlMessage{name, *command.control})
                                        : FormatMessage(RunMessage{name, static_cast<DWORD>(process.isAlone),
                                                                   command.arguments}));
    SetCommandLimit(process);
}

// Who asked hears of it. What the process is at now it may still end.
void Manager::OnCommandLate(Process& process) {
    for (Command& command : process.commands)
        EndCommand(command, ERROR_SERVICE_REQUEST_TIMEOUT);
    // Those that it has not been told are not told any more.
    process.commands.resize(1);
}

void Manager::EndCommand(Command& command, DWORD code) {
    const int asker = std::exchange(command.asker, -1);
    Service* const service = Find(command.service);
    if (command.control && service) AnswerStatus(asker, code, *service);
    if (!command.control || !service) Answer(asker, FormatMessage(ReplyMessage{code}));
}

void Manager::OnDone(Process& process, DWORD code) {
    process.limit.Cancel();
    process.isBusy = false;
    Command command = std::move(process.commands.front());
    process.commands.pop_front();
    EndCommand(command, code);
    Service* const service = Find(command.service);
    // The service's own report that it has stopped may come before the answer.
    if (!command.control && code && service && service->process == &process) SetStopped(*service, code);
    SendNext(process);
}

// A service that has stopped is no longer its process's.
void Manager::Leave(Service& service) {
    Process* const process = std::exchange(service.process, nullptr);
    if (!process) return;
    std::erase(process->services, &service);
    const std::size_t sent = process->isBusy ? 1 : 0;
    for (std::size_t i = process->commands.size(); i-- > sent;) {
        Command& command = process->commands[i];
        if (command.service != service.key) continue;
        EndCommand(command, ERROR_SERVICE_NOT_ACTIVE);
        process->commands.erase(process->commands.begin() + static_cast<std::ptrdiff_t>(i));
    }
    SendNext(*process);
}

void Manager::OnProcessEnd(Process& process) {
    // What it said last counts.
    if (const auto link = m_links.find(process.link); link != m_links.end()) link->second->ReadRest();
    const std::unique_ptr<Process> ended = std::move(m_processes.extract(process.id.pid).mapped());
    const bool wasExpected = process.isExpected;
    process.link = -1;
    process.isFinishing = true;
    const DWORD code = process.wasAttached ? ERROR_PROCESS_ABORTED : ERROR_SERVICE_REQUEST_TIMEOUT;
    for (Command& command : process.commands)
        EndCommand(command, code);
    process.commands.clear();
    for (Service* const service : std::vector(process.services)) {
        if (process.wasAttached)
            SetCrashed(*service, code);
        else
            EndStart(*service, code);
    }
    if (wasExpected) EndExpecting(process);
}

}  // namespace tqscm
