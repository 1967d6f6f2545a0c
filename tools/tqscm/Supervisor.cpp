#include "Supervisor.h"

#include "FoundProcesses.h"
#include "Print.h"
#include "Rights.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>

namespace tqscm {

namespace {

constexpr DWORD FirstWaitHintMs = 2000;
// In which the services stop when the manager ends, and their processes once they are killed.
constexpr std::chrono::seconds EndLimit{20};
// After which a start that is owed and had no memory, process or descriptor is tried again.
constexpr std::chrono::seconds ResourcePause{1};

// A service that fails this often, each time within this time after its start, is restarted ever later: each
// time after twice the pause before, which is the configured delay at first, or this.
constexpr DWORD MostQuickFailures = 5;
constexpr std::uint64_t QuickMs = 10'000;
constexpr std::uint64_t FirstPauseMs = 100;
constexpr std::uint64_t LongestPauseMs = 60'000;

std::uint64_t PauseAfter(DWORD quickFailures, std::uint64_t delay) {
    if (quickFailures <= MostQuickFailures) return delay;
    const DWORD doublings = std::min<DWORD>(quickFailures - MostQuickFailures, 16);
    const std::uint64_t pause = std::max(delay, FirstPauseMs) << doublings;
    return std::max(delay, std::min(pause, LongestPauseMs));
}

bool IsShortOfResources(DWORD code) {
    return code == ERROR_NOT_ENOUGH_MEMORY || code == ERROR_TOO_MANY_OPEN_FILES ||
           code == ERROR_NO_SYSTEM_RESOURCES || code == ERROR_OUTOFMEMORY;
}

}  // namespace

Supervisor::Supervisor(EventLoop& loop, const Settings& settings, ServiceTable& table, Journal& journal,
                       Worker& worker)
    : m_settings(settings),
      m_table(table),
      m_journal(journal),
      m_worker(worker),
      m_processes(loop, settings, *this),
      m_delayedStart(loop),
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
    service.quickFailures = entry.quickFailures;
    service.started = entry.started;
    service.lastFailure = entry.lastFailure;
    service.dueAction = entry.dueAction;
    service.dueTime = entry.dueTime;
    service.isRunOwed = entry.isStartOwed != 0;
    service.arguments = entry.arguments;
    if (!service.IsActive()) return;
    Process* process = m_processes.Find(entry.process);
    const bool isThere = process || (entry.process.startTime && IdOf(entry.process.pid) == entry.process);
    if (!isThere) return;
    if (!process) process = &m_processes.Adopt(entry);
    process->services.push_back(&service);
    service.process = process;
    WatchPending(service);
}

// Only now is it known what has ended meanwhile, and what nobody has begun.
void Supervisor::OnAllBack() {
    m_haveBegun = true;
    for (const auto& [key, service] : m_table.All()) {
        Changed(*service);
        // A start that a damaged journal tells of may have been done, and undone since.
        const bool isOwed = service->isRunOwed && !service->process;
        if (isOwed && !m_journal.WasDamaged()) {
            StartAgain(*service);
        } else if (service->IsActive() && !service->process) {
            SetCrashed(*service, ERROR_PROCESS_ABORTED);
        } else if (service->dueAction) {
            SetAction(*service);
        }
        if (!isOwed || service->isStarting) continue;
        service->isRunOwed = false;
        Journalise(*service);
    }
    m_journal.Trust();
    AutoStart(false);
    m_delayedStart.Set(m_settings.autoStartDelay, [this] { AutoStart(true); });
    GoOn();
    if (m_whenBegun) m_whenBegun();
}

// A start that an earlier manager owed.
void Supervisor::StartAgain(Service& service) {
    std::vector<std::string> arguments = std::move(service.arguments);
    if (service.IsActive()) SetStopped(service, ERROR_PROCESS_ABORTED);
    if (const DWORD code = Start(service, std::move(arguments), nullptr); code && !service.isStarting) {
        Print("%s was not started: error %u", service.name.c_str(), code);
        Journalise(service);
    }
}

// Starting.

void Supervisor::AutoStart(bool delayed) {
    for (const auto& [key, service] : m_table.All()) {
        const bool isDelayed = service->config.delayed != 0;
        const bool wasNeverStarted = service->status.dwWin32ExitCode == ERROR_SERVICE_NEVER_STARTED;
        if (service->config.start != SERVICE_AUTO_START || isDelayed != delayed || !wasNeverStarted) continue;
        if (const DWORD code = Start(*service, {}, nullptr); code && code != ERROR_SERVICE_ALREADY_RUNNING)
            Print("%s was not started: error %u", service->name.c_str(), code);
    }
}

DWORD Supervisor::Start(Service& service, std::vector<std::string> arguments, Done done) {
    if (service.isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
    if (service.config.start == SERVICE_DISABLED) return ERROR_SERVICE_DISABLED;
    if (service.IsActive() || service.isStarting) return ERROR_SERVICE_ALREADY_RUNNING;
    if (m_isEnding) return ERROR_SHUTDOWN_IN_PROGRESS;
    std::vector<Service*> order;
    if (!m_table.StartOrder(service, order)) return ERROR_CIRCULAR_DEPENDENCY;
    for (const std::string& key : service.dependencies) {
        const Service* const dependency = m_table.Find(key);
        if (!dependency || dependency->isMarked) return ERROR_SERVICE_DEPENDENCY_DELETED;
    }
    service.arguments = std::move(arguments);
    service.starter = std::move(done);
    // What it needs and cannot be started is found stopped later on.
    for (Service* const started : order) {
        DropAction(*started);
        started->isStarting = started->isRunOwed = true;
        started->nextDependency = 0;
        Journalise(*started);
        Changed(*started);
    }
    return ERROR_SUCCESS;
}

// Runs it once its dependencies do. Those that were up are looked at once more in the end.
void Supervisor::GoOnStarting(Service& service) {
    if (m_isEnding) return EndStart(service, ERROR_SHUTDOWN_IN_PROGRESS);
    const std::size_t count = service.dependencies.size();
    for (std::size_t looked = 0; looked < count; ++looked) {
        const std::string& key = service.dependencies[service.nextDependency % count];
        const Service* const dependency = m_table.Find(key);
        if (!dependency) return EndStart(service, ERROR_SERVICE_DEPENDENCY_DELETED);
        if (!dependency->IsUp()) {
            const bool mayComeUp =
                dependency->isStarting ||
                (dependency->status.dwCurrentState == SERVICE_START_PENDING && !dependency->isHung);
            if (!mayComeUp) return EndStart(service, ERROR_SERVICE_DEPENDENCY_FAIL);
            m_waiting[key].insert(service.key);
            return;
        }
        service.nextDependency = (service.nextDependency + 1) % count;
    }
    if (service.action.IsSet() || !HasAccount(service)) return;  // later
    const DWORD code = RunService(service);
    if (code && IsShortOfResources(code) && !service.starter) return TryLater(service);
    if (code) EndStart(service, code);
}

// Looks it up where that is needed, and goes on then.
bool Supervisor::HasAccount(Service& service) {
    if (service.isLookedUp) return false;
    if (!service.account) service.account = std::make_shared<Account>();
    if (IsOwnAccount(service.config.account) || !service.account->name.empty()) return true;
    service.isLookedUp = true;
    const auto account = std::make_shared<Account>();
    const std::string name = service.config.account;
    const auto lookUp = [account, name] { return FindAccount(name, *account); };
    m_worker.Post(lookUp, [this, account, name, key = service.key](DWORD code) {
        Service* const started = m_table.Find(key);
        if (!started) return;
        started->isLookedUp = false;
        if (!started->isStarting) return;
        if (started->config.account != name) return Changed(*started);
        if (code && IsShortOfResources(code) && !started->starter) return TryLater(*started);
        if (code) return EndStart(*started, ERROR_SERVICE_LOGON_FAILED);
        started->account = account;
        Changed(*started);
    });
    return false;
}

DWORD Supervisor::RunService(Service& service) {
    const ServiceConfig& config = service.config;
    const std::shared_ptr<Account> account = std::move(service.account);
    Process* process =
        config.type == SERVICE_WIN32_SHARE_PROCESS ? m_processes.FindShared(config.commandLine) : nullptr;
    if (process && KeyOf(process->account) != KeyOf(config.account)) return ERROR_DIFFERENT_SERVICE_ACCOUNT;
    if (!process)
        if (DWORD code = m_processes.Start(config, *account, process)) return code;
    service.process = process;
    process->services.push_back(&service);
    service.isStarting = service.wasToldLate = service.wasKilled = false;
    service.isAwaited = service.starter != nullptr;
    service.started = BootMs();
    SetStatus(service, {config.type, SERVICE_START_PENDING, 0, 0, 0, 0, FirstWaitHintMs});
    process->Tell({.key = service.key,
                   .name = service.name,
                   .control = {},
                   .arguments = service.arguments,
                   .done = std::exchange(service.starter, nullptr)});
    return ERROR_SUCCESS;
}

// Nobody is there to be told that there are no resources for it.
void Supervisor::TryLater(Service& service) {
    if (!std::exchange(service.wasToldLate, true))
        Print("%s is started later: there is not enough memory or too many processes or descriptors",
              service.name.c_str());
    service.action.Set(ResourcePause, [this, &service] { Changed(service); });
}

// What did not come as far as its main function.
void Supervisor::EndStart(Service& service, DWORD code) {
    service.isStarting = service.isRunOwed = service.wasToldLate = false;
    service.arguments.clear();
    Print("%s was not started: error %u", service.name.c_str(), code);
    SetStopped(service, code);
    if (const Done done = std::exchange(service.starter, nullptr)) done(code);
}

// States.

void Supervisor::SetStatus(Service& service, const SERVICE_STATUS& status) {
    const SERVICE_STATUS before = std::exchange(service.status, status);
    service.status.dwServiceType = service.config.type;
    const bool isSame = before.dwCurrentState == status.dwCurrentState;
    const bool isProgress = !isSame || before.dwCheckPoint != status.dwCheckPoint;
    if (isProgress) WatchPending(service);
    if (!isSame || before.dwControlsAccepted != status.dwControlsAccepted || !service.IsActive()) {
        Changed(service);
        // A service that has stopped is no longer its process's.
        Process* const left = service.IsActive() ? nullptr : std::exchange(service.process, nullptr);
        if (!service.IsActive()) {
            service.isRunOwed = service.isStopping = false;
            service.arguments.clear();
        }
        Journalise(service);
        if (left) left->Release(service);
    }
    if (isProgress && m_tell) m_tell(service);
}

// A service that reports no progress for too long is hung: one that is pending, or that took a control to
// stop.
void Supervisor::WatchPending(Service& service) {
    service.isHung = false;
    if (!service.IsPending() && !(service.IsActive() && service.isStopping)) return service.hang.Cancel();
    const auto hint = std::chrono::milliseconds(service.IsPending() ? service.status.dwWaitHint : 0);
    service.hang.Set(hint + m_settings.requestLimit, [this, &service] { OnHung(service); });
}

// Its process is ended, unless services in it do well: those are not to suffer, so that it is given up alone.
void Supervisor::OnHung(Service& service) {
    service.isHung = true;
    Changed(service);
    Process* const process = service.process;
    const bool mayEnd = process && std::ranges::all_of(process->services, &Service::isHung);
    Print("%s reports nothing in state %u and is %s", service.name.c_str(), service.status.dwCurrentState,
          mayEnd ? "ended with its process" : "given up");
    if (mayEnd) return process->EndHung();
    SetStopped(service, ERROR_SERVICE_REQUEST_TIMEOUT);
    if (process) service.gaveUpIn = process->id;
}

void Supervisor::SetStopped(Service& service, DWORD code) {
    SetStatus(service, {service.config.type, SERVICE_STOPPED, 0, code, 0, 0, 0});
}

// Without a report of its own.
void Supervisor::SetCrashed(Service& service, DWORD code) {
    Print("%s ended without a report", service.name.c_str());
    SetStopped(service, code);
    if (!std::exchange(service.wasKilled, false)) OnFailure(service);
}

void Supervisor::Journalise(const Service& service) {
    JournalEntry entry{.status = service.status,
                       .process = {},
                       .commandLine = {},
                       .account = {},
                       .isAlone = 0,
                       .failures = service.failures,
                       .quickFailures = service.quickFailures,
                       .started = service.started,
                       .lastFailure = service.lastFailure,
                       .dueAction = service.dueAction,
                       .dueTime = service.dueTime,
                       .isStartOwed = service.isRunOwed,
                       .arguments = service.arguments};
    if (const Process* const process = service.process) {
        entry.process = process->id;
        entry.commandLine = process->commandLine;
        entry.account = process->account;
        entry.isAlone = process->isAlone;
    }
    m_journal.Put(service.name, entry);
}

// Failures.

void Supervisor::OnFailure(Service& service) {
    const FailureActions& failure = service.config.failure;
    const std::uint64_t now = BootMs();
    const bool isLongAgo = failure.resetPeriod != INFINITE &&
                           now - service.lastFailure >= std::uint64_t{failure.resetPeriod} * 1000;
    if (isLongAgo) service.failures = 0;
    const std::size_t index = service.failures++;
    service.quickFailures = now - service.started < QuickMs ? service.quickFailures + 1 : 0;
    service.lastFailure = now;
    if (!failure.actions.empty() && !m_isEnding && !service.isMarked) {
        const FailureAction& action = failure.actions[std::min(index, failure.actions.size() - 1)];
        const bool isRestart = action.type == SC_ACTION_RESTART;
        if (isRestart && service.quickFailures == MostQuickFailures + 1)
            Print("%s fails again and again and is restarted ever later", service.name.c_str());
        service.dueAction = action.type;
        service.dueTime = now + (isRestart ? PauseAfter(service.quickFailures, action.delay) : action.delay);
        SetAction(service);
    }
    Journalise(service);
}

void Supervisor::SetAction(Service& service) {
    if (service.dueAction == SC_ACTION_NONE) return;
    const std::uint64_t now = BootMs();
    const std::chrono::milliseconds left(service.dueTime > now ? service.dueTime - now : 0);
    service.action.Set(left, [this, &service] { DoAction(service); });
}

void Supervisor::DropAction(Service& service) {
    service.action.Cancel();
    service.dueAction = SC_ACTION_NONE;
}

void Supervisor::DoAction(Service& service) {
    if (std::exchange(service.dueAction, SC_ACTION_NONE) == SC_ACTION_RESTART) {
        const DWORD code = Start(service, {}, nullptr);
        if (code && code != ERROR_SERVICE_ALREADY_RUNNING)
            Print("%s was not started: error %u", service.name.c_str(), code);
    } else {
        RunFailureCommand(service);
    }
    Journalise(service);
}

// As the service's own account. "%1%" in the command stands for how often the service has failed.
void Supervisor::RunFailureCommand(const Service& service) {
    std::string command = service.config.failureCommand;
    const std::string_view place = "%1%";
    if (const std::size_t at = command.find(place); at != command.npos)
        command.replace(at, place.size(), std::to_string(service.failures));
    const auto account = std::make_shared<Account>();
    const auto lookUp = [account, name = service.config.account] { return FindAccount(name, *account); };
    m_worker.Post(lookUp, [this, account, command, name = service.name](DWORD code) {
        if (!code) code = m_processes.RunCommand(command, *account);
        if (code) Print("%s: the command after its failure was not run: error %u", name.c_str(), code);
    });
}

// Processes.

void Supervisor::OnReport(Process& process, const NamedStatus& reported) {
    const DWORD state = reported.status.dwCurrentState;
    Service* const service = m_table.Find(KeyOf(reported.name));
    if (!service || state < SERVICE_STOPPED || state > SERVICE_PAUSED) return;
    if (service->process != &process) {
        // One that was given up does something after all.
        const bool isBack = service->gaveUpIn == process.id && !service->process && !service->isStarting;
        if (!isBack || state == SERVICE_STOPPED) return;
        service->gaveUpIn = {};
        service->process = &process;
        process.services.push_back(service);
    }
    const bool wasActive = service->IsActive();
    const bool hasBegun = std::exchange(service->isRunOwed, false);
    if (hasBegun) service->arguments.clear();
    SetStatus(*service, reported.status);
    if (hasBegun && state == SERVICE_START_PENDING) Journalise(*service);
    const bool hasFailed =
        wasActive && !service->IsActive() && reported.status.dwWin32ExitCode != ERROR_SUCCESS;
    if (hasFailed && service->config.failsWithoutCrash) OnFailure(*service);
}

// A service has its time from when its process is told of it.
void Supervisor::OnTold(Process& process, const Command& command) {
    Service* const service = command.control ? nullptr : m_table.Find(command.key);
    if (service && service->process == &process) WatchPending(*service);
}

void Supervisor::OnAnswer(Process& process, const Command& command, DWORD code) {
    Service* const service = m_table.Find(command.key);
    // Its report that it has stopped may come before the answer.
    if (!service || service->process != &process) return;
    if (!command.control) {
        if (code) return SetStopped(*service, code);
        service->gaveUpIn = {};
        if (!std::exchange(service->isRunOwed, false)) return;
        service->arguments.clear();
        return Journalise(*service);
    }
    const bool isStop =
        *command.control == SERVICE_CONTROL_STOP || *command.control == SERVICE_CONTROL_SHUTDOWN;
    if (!isStop || code || service->isStopping) return;
    service->isStopping = true;
    if (!service->IsPending()) WatchPending(*service);
}

// Those that run there and nowhere else.
std::vector<Service*> Supervisor::ServicesOf(const std::vector<NamedStatus>& reported) const {
    std::vector<Service*> services;
    for (const NamedStatus& status : reported) {
        Service* const service = m_table.Find(KeyOf(status.name));
        if (service && !service->process && !service->isStarting &&
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
            Journalise(*service);
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
        if (service->isRunOwed) {
            // What an earlier manager did not come to tell it.
            process.Tell({.key = service->key,
                          .name = service->name,
                          .control = {},
                          .arguments = service->arguments,
                          .done = nullptr});
        } else {
            SetStopped(*service, ERROR_PROCESS_ABORTED);
        }
    }
}

void Supervisor::OnEnded(Process& process, DWORD code) {
    for (Service* const service : std::vector(process.services)) {
        const bool wasStopping =
            service->isStopping || service->status.dwCurrentState == SERVICE_STOP_PENDING;
        if (!process.WasConnected() && IsShortOfResources(code) && !service->isAwaited) {
            StartAgain(*service);
            if (service->isStarting) TryLater(*service);
        } else if (!process.WasConnected()) {
            Print("%s was not started: error %u", service->name.c_str(), code);
            SetStopped(*service, code);
        } else if (process.IsExpected() && service->isRunOwed && !m_journal.WasDamaged()) {
            StartAgain(*service);
        } else if (service->isHung && wasStopping) {
            SetStopped(*service, code);
        } else {
            SetCrashed(*service, code);
        }
    }
    for (const auto& [key, service] : m_table.All())
        if (service->gaveUpIn == process.id) service->gaveUpIn = {};
}

// Controls.

DWORD Supervisor::Control(Service& service, DWORD control, Done done) {
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
    DropAction(service);
    Changed(service);
}

// After every change, for those who wait for one.
void Supervisor::GoOn() {
    const bool hasNews = !m_news.empty();
    while (!m_news.empty()) {
        const std::string key = std::move(m_news.extract(m_news.begin()).value());
        if (const auto waiting = m_waiting.extract(key))
            for (const std::string& other : waiting.mapped())
                if (Service* const service = m_table.Find(other); service && service->isStarting)
                    GoOnStarting(*service);
        Service* const service = m_table.Find(key);
        if (service && service->isStarting)
            GoOnStarting(*service);
        else if (service && service->isMarked && !service->IsActive() && m_remove)
            m_remove(*service);
    }
    if (m_isEnding && hasNews) StopNext();
}

// The end.

bool Supervisor::AreAllStopped() const {
    return std::ranges::none_of(m_table.All(), [](const auto& entry) { return entry.second->IsActive(); });
}

void Supervisor::BeginEnd() {
    if (std::exchange(m_isEnding, true)) return;
    m_delayedStart.Cancel();
    for (const auto& [key, service] : m_table.All()) {
        DropAction(*service);
        Changed(*service);
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
