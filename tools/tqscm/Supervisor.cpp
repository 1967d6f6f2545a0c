#include "Supervisor.h"

#include "FoundProcesses.h"
#include "Print.h"
#include "Rights.h"

#include <algorithm>

namespace tqscm {

namespace {

// In which the services stop when the manager ends, and their processes once they are killed.
constexpr std::chrono::seconds EndLimit{20};

}  // namespace

Supervisor::Supervisor(EventLoop& loop, const Settings& settings, ServiceTable& table, Journal& journal,
                       Worker& worker)
    : m_table(table),
      m_journal(journal),
      m_worker(worker),
      m_processes(loop, settings, *this),
      m_states(settings, journal),
      m_starts(loop, settings, table, worker, m_processes, m_states),
      m_failures(worker, m_processes, m_states, m_starts),
      m_endLimit(loop) {}

// What an earlier manager left.

void Supervisor::Begin() {
    for (const auto& [name, entry] : m_journal.All())
        if (Service* const service = m_table.Find(KeyOf(name))) TakeOver(*service, entry);
    m_processes.AdoptStrangers();
    if (m_processes.AreAllBack()) return OnAllBack();
    m_processes.WhenAllBack([this] { OnAllBack(); });
}

void Supervisor::TakeOver(Service& service, const JournalEntry& entry) {
    service.status = entry.status;
    service.failures = entry.failures;
    service.start.isOwed = entry.isStartOwed != 0;
    service.start.arguments = entry.arguments;
    if (!service.IsActive()) return;
    Process* process = m_processes.Find(entry.process);
    const bool isThere = process || (entry.process.startTime && IdOf(entry.process.pid) == entry.process);
    if (!isThere) return;
    if (!process) process = &m_processes.Adopt(entry);
    process->services.push_back(&service);
    service.process = process;
    m_states.WatchPending(service);
}

// Only now is it known what has ended meanwhile, and what nobody has begun.
void Supervisor::OnAllBack() {
    m_haveBegun = true;
    for (const auto& [key, service] : m_table.All()) {
        m_states.Changed(*service);
        // A start that a damaged journal tells of may have been done, and undone since.
        const bool isOwed = service->start.isOwed && !service->process;
        if (isOwed && !m_journal.WasDamaged()) {
            m_starts.Again(*service);
        } else if (service->IsActive() && !service->process) {
            SetCrashed(*service, ERROR_PROCESS_ABORTED);
        } else if (service->failures.dueAction) {
            m_failures.SetAction(*service);
        }
        if (!isOwed || service->start.isUnderWay) continue;
        service->start.isOwed = false;
        m_states.Journalise(*service);
    }
    m_journal.Trust();
    m_starts.BeginAutomatic();
    GoOn();
    if (m_whenBegun) m_whenBegun();
}

void Supervisor::SetCrashed(Service& service, DWORD code) {
    Print("%s ended without a report", service.name.c_str());
    m_states.SetStopped(service, code);
    if (!std::exchange(service.wasKilled, false)) m_failures.Add(service);
}

// Processes.

void Supervisor::OnReport(Process& process, const NamedStatus& reported) {
    const DWORD state = reported.status.dwCurrentState;
    Service* const service = m_table.Find(KeyOf(reported.name));
    if (!service || state < SERVICE_STOPPED || state > SERVICE_PAUSED) return;
    if (service->process != &process) {
        // One that was given up does something after all.
        const bool isBack =
            service->gaveUpIn == process.id && !service->process && !service->start.isUnderWay;
        if (!isBack || state == SERVICE_STOPPED) return;
        service->gaveUpIn = {};
        service->process = &process;
        process.services.push_back(service);
    }
    const bool wasActive = service->IsActive();
    const bool hasBegun = std::exchange(service->start.isOwed, false);
    if (hasBegun) service->start.arguments.clear();
    m_states.Set(*service, reported.status);
    if (hasBegun && state == SERVICE_START_PENDING) m_states.Journalise(*service);
    const bool hasFailed =
        wasActive && !service->IsActive() && reported.status.dwWin32ExitCode != ERROR_SUCCESS;
    if (hasFailed && service->config.failsWithoutCrash) m_failures.Add(*service);
}

// A service has its time from when its process is told of it.
void Supervisor::OnTold(Process& process, const Command& command) {
    Service* const service = command.control ? nullptr : m_table.Find(command.key);
    if (service && service->process == &process) m_states.WatchPending(*service);
}

void Supervisor::OnAnswer(Process& process, const Command& command, DWORD code) {
    Service* const service = m_table.Find(command.key);
    // Its report that it has stopped may come before the answer.
    if (!service || service->process != &process) return;
    if (!command.control) {
        if (code) return m_states.SetStopped(*service, code);
        service->gaveUpIn = {};
        if (!std::exchange(service->start.isOwed, false)) return;
        service->start.arguments.clear();
        return m_states.Journalise(*service);
    }
    const bool isStop =
        *command.control == SERVICE_CONTROL_STOP || *command.control == SERVICE_CONTROL_SHUTDOWN;
    if (!isStop || code || service->isStopping) return;
    service->isStopping = true;
    if (!service->IsPending()) m_states.WatchPending(*service);
}

// Those that run there and nowhere else.
std::vector<Service*> Supervisor::ServicesOf(const std::vector<NamedStatus>& reported) const {
    std::vector<Service*> services;
    for (const NamedStatus& status : reported) {
        Service* const service = m_table.Find(KeyOf(status.name));
        if (service && !service->process && !service->start.isUnderWay &&
            status.status.dwCurrentState != SERVICE_STOPPED)
            services.push_back(service);
    }
    return services;
}

// A process that was started for services, though the journal has lost it. It is what it says to be if the
// kernel says so too, and if nothing else runs in its place.
void Supervisor::OnStranger(Process& process, const std::vector<NamedStatus>& reported) {
    const std::vector<Service*> services = ServicesOf(reported);
    const auto isActive = [](const NamedStatus& status) {
        return status.status.dwCurrentState != SERVICE_STOPPED;
    };
    if (services.empty() && std::ranges::none_of(reported, isActive)) return process.Know(nullptr, reported);
    const ServiceConfig config = services.empty() ? ServiceConfig() : services[0]->config;
    const auto identify = [id = process.id.pid, user = process.User(), config]() -> DWORD {
        return IsProcessOf(id, user, config.commandLine, config.account) ? ERROR_SUCCESS
                                                                         : ERROR_ACCESS_DENIED;
    };
    const auto know = [this, id = process.id, connections = process.Connections(), config,
                       reported](DWORD code) {
        Process* const stranger = m_processes.Find(id);
        if (!stranger || stranger->Connections() != connections) return;
        std::vector<Service*> found = ServicesOf(reported);
        std::erase_if(found, [&](const Service* service) {
            return service->config.commandLine != config.commandLine ||
                   service->config.account != config.account;
        });
        if (code || found.empty()) {
            Print("process %d runs services that it may not, and is ended", static_cast<int>(id.pid));
            return stranger->Kill();
        }
        for (Service* const service : found) {
            Print("%s is found again in process %d", service->name.c_str(), static_cast<int>(id.pid));
            service->process = stranger;
            stranger->services.push_back(service);
            m_states.Journalise(*service);
        }
        stranger->Know(&config, reported);
    };
    m_worker.Post(identify, know);
}

void Supervisor::OnBack(Process& process, const std::vector<NamedStatus>& reported) {
    for (const NamedStatus& status : reported)
        OnReport(process, status);
    for (Service* const service : std::vector(process.services)) {
        const bool isThere = std::ranges::any_of(
            reported, [&](const NamedStatus& status) { return KeyOf(status.name) == service->key; });
        if (isThere || process.WillRun(service->key)) continue;
        if (service->start.isOwed) {
            // What an earlier manager did not come to tell it.
            process.Tell({.key = service->key,
                          .name = service->name,
                          .control = {},
                          .arguments = service->start.arguments,
                          .done = nullptr});
        } else {
            m_states.SetStopped(*service, ERROR_PROCESS_ABORTED);
        }
    }
}

void Supervisor::OnEnded(Process& process, DWORD code) {
    for (Service* const service : std::vector(process.services)) {
        const bool wasStopping =
            service->isStopping || service->status.dwCurrentState == SERVICE_STOP_PENDING;
        if (!process.WasConnected() && Starts::IsShortOfResources(code) && !service->start.isAwaited) {
            m_starts.Again(*service);
            if (service->start.isUnderWay) m_starts.TryLater(*service);
        } else if (!process.WasConnected()) {
            Print("%s was not started: error %u", service->name.c_str(), code);
            m_states.SetStopped(*service, code);
        } else if (process.IsExpected() && service->start.isOwed && !m_journal.WasDamaged()) {
            m_starts.Again(*service);
        } else if (service->isHung && wasStopping) {
            m_states.SetStopped(*service, code);
        } else {
            SetCrashed(*service, code);
        }
    }
    for (const auto& [key, service] : m_table.All())
        if (service->gaveUpIn == process.id) service->gaveUpIn = {};
}

// Controls.

DWORD Supervisor::Control(Service& service, DWORD control, Starts::Done done) {
    const DWORD acceptance = AcceptanceOf(control);
    if (!service.IsActive() || !service.process) return ERROR_SERVICE_NOT_ACTIVE;
    if (!service.IsUp()) return ERROR_SERVICE_CANNOT_ACCEPT_CTRL;
    if ((service.status.dwControlsAccepted & acceptance) != acceptance) return ERROR_INVALID_SERVICE_CONTROL;
    if (control == SERVICE_CONTROL_STOP &&
        std::ranges::any_of(m_table.DependentsOf(service), &Service::IsActive))
        return ERROR_DEPENDENT_SERVICES_RUNNING;
    service.process->Tell({.key = service.key,
                           .name = service.name,
                           .control = control,
                           .arguments = {},
                           .done = std::move(done)});
    return ERROR_SUCCESS;
}

DWORD Supervisor::Kill(Service& service) {
    if (!service.IsActive() || !service.process) return ERROR_SERVICE_NOT_ACTIVE;
    service.wasKilled = true;
    service.process->Kill();
    return ERROR_SUCCESS;
}

void Supervisor::Mark(Service& service) {
    service.isMarked = true;
    service.DropAction();
    m_states.Changed(service);
}

// After every change, for those who wait for one.
void Supervisor::GoOn() {
    const bool hasNews = m_states.HaveChanged();
    while (const auto key = m_states.NextChanged()) {
        m_starts.OnChanged(*key);
        Service* const service = m_table.Find(*key);
        const bool isUnused =
            service && service->isMarked && !service->IsActive() && !service->start.isUnderWay;
        if (isUnused && m_remove) m_remove(*service);
    }
    if (m_isEnding && hasNews) StopNext();
}

// The end.

bool Supervisor::AreAllStopped() const {
    return std::ranges::none_of(m_table.All(), [](const auto& entry) { return entry.second->IsActive(); });
}

void Supervisor::BeginEnd() {
    if (std::exchange(m_isEnding, true)) return;
    m_starts.End();
    for (const auto& [key, service] : m_table.All()) {
        service->DropAction();
        m_states.Changed(*service);
    }
    m_endLimit.Set(EndLimit, [this] {
        m_processes.KillAll();
        m_endLimit.Set(EndLimit, [this] { m_hasGivenUp = true; });
    });
}

// From the services on which no other depends to those that they need.
void Supervisor::StopNext() {
    const std::set<const Service*> needed = m_table.NeededNow();
    for (const auto& [key, service] : m_table.All()) {
        if (!service->process || service->wasToldToEnd || !service->IsUp() || needed.contains(service.get()))
            continue;
        const DWORD accepted = service->status.dwControlsAccepted;
        if (!(accepted & (SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_STOP))) continue;
        service->wasToldToEnd = true;
        const DWORD control =
            accepted & SERVICE_ACCEPT_SHUTDOWN ? SERVICE_CONTROL_SHUTDOWN : SERVICE_CONTROL_STOP;
        service->process->Tell(
            {.key = key, .name = service->name, .control = control, .arguments = {}, .done = nullptr});
    }
}

}  // namespace tqscm
