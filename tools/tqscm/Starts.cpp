#include "Starts.h"

#include "Print.h"

#include <algorithm>

namespace tqscm {

namespace {

constexpr DWORD FirstWaitHintMs = 2000;
// After which a start that is owed and had no memory, process or descriptor is tried again.
constexpr std::chrono::seconds ResourcePause{1};

}  // namespace

Starts::Starts(EventLoop& loop, const Settings& settings, ServiceTable& table, Worker& worker,
               Processes& processes, ServiceStates& states)
    : m_settings(settings),
      m_table(table),
      m_worker(worker),
      m_processes(processes),
      m_states(states),
      m_delayed(loop) {}

bool Starts::IsShortOfResources(DWORD code) {
    return code == ERROR_NOT_ENOUGH_MEMORY || code == ERROR_TOO_MANY_OPEN_FILES ||
           code == ERROR_NO_SYSTEM_RESOURCES || code == ERROR_OUTOFMEMORY;
}

void Starts::BeginAutomatic() {
    StartAutomatic(false);
    m_delayed.Set(m_settings.autoStartDelay, [this] { StartAutomatic(true); });
}

void Starts::End() {
    m_haveEnded = true;
    m_delayed.Cancel();
}

void Starts::OnChanged(const std::string& key) {
    if (const auto waiting = m_waiting.extract(key))
        for (const std::string& other : waiting.mapped())
            if (Service* const service = m_table.Find(other); service && service->start.isUnderWay)
                GoOn(*service);
    if (Service* const service = m_table.Find(key); service && service->start.isUnderWay) GoOn(*service);
}

void Starts::StartAutomatic(bool delayed) {
    for (const auto& [key, service] : m_table.All()) {
        const bool isDelayed = service->config.delayed != 0;
        const bool wasNeverStarted = service->status.dwWin32ExitCode == ERROR_SERVICE_NEVER_STARTED;
        if (service->config.start != SERVICE_AUTO_START || isDelayed != delayed || !wasNeverStarted) continue;
        if (const DWORD code = Start(*service, {}, nullptr); code && code != ERROR_SERVICE_ALREADY_RUNNING)
            Print("%s was not started: error %u", service->name.c_str(), code);
    }
}

DWORD Starts::Start(Service& service, std::vector<std::string> arguments, Done done) {
    if (service.isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
    if (service.config.start == SERVICE_DISABLED) return ERROR_SERVICE_DISABLED;
    if (service.IsActive() || service.start.isUnderWay) return ERROR_SERVICE_ALREADY_RUNNING;
    if (m_haveEnded) return ERROR_SHUTDOWN_IN_PROGRESS;
    std::vector<Service*> order;
    if (!m_table.StartOrder(service, order)) return ERROR_CIRCULAR_DEPENDENCY;
    for (const std::string& key : service.dependencies) {
        const Service* const dependency = m_table.Find(key);
        if (!dependency || dependency->isMarked) return ERROR_SERVICE_DEPENDENCY_DELETED;
    }
    service.start.arguments = std::move(arguments);
    service.start.done = std::move(done);
    // What it needs and cannot be started is found stopped later on.
    for (Service* const started : order) {
        started->DropAction();
        started->start.isUnderWay = started->start.isOwed = true;
        started->start.nextDependency = 0;
        m_states.Journalise(*started);
        m_states.Changed(*started);
    }
    return ERROR_SUCCESS;
}

// Runs it once its dependencies do. Those that were up are looked at once more in the end.
void Starts::GoOn(Service& service) {
    if (m_haveEnded) return Fail(service, ERROR_SHUTDOWN_IN_PROGRESS);
    const std::size_t count = service.dependencies.size();
    for (std::size_t looked = 0; looked < count; ++looked) {
        const std::string& key = service.dependencies[service.start.nextDependency % count];
        const Service* const dependency = m_table.Find(key);
        if (!dependency) return Fail(service, ERROR_SERVICE_DEPENDENCY_DELETED);
        if (!dependency->IsUp()) {
            const bool mayComeUp =
                dependency->start.isUnderWay ||
                (dependency->status.dwCurrentState == SERVICE_START_PENDING && !dependency->isHung);
            if (!mayComeUp) return Fail(service, ERROR_SERVICE_DEPENDENCY_FAIL);
            m_waiting[key].insert(service.key);
            return;
        }
        service.start.nextDependency = (service.start.nextDependency + 1) % count;
    }
    if (service.action.IsSet() || !HasAccount(service)) return;  // later
    const DWORD code = Run(service);
    if (code && IsShortOfResources(code) && !service.start.done) return TryLater(service);
    if (code) Fail(service, code);
}

// Looks it up where that is needed, and goes on then.
bool Starts::HasAccount(Service& service) {
    if (service.start.isLookedUp) return false;
    if (!service.start.account) service.start.account = std::make_shared<Account>();
    if (IsOwnAccount(service.config.account) || !service.start.account->name.empty()) return true;
    service.start.isLookedUp = true;
    const auto account = std::make_shared<Account>();
    const std::string name = service.config.account;
    const auto lookUp = [account, name] { return FindAccount(name, *account); };
    m_worker.Post(lookUp, [this, account, name, key = service.key](DWORD code) {
        Service* const started = m_table.Find(key);
        if (!started) return;
        started->start.isLookedUp = false;
        if (!started->start.isUnderWay) return;
        if (started->config.account != name) return m_states.Changed(*started);
        if (code && IsShortOfResources(code) && !started->start.done) return TryLater(*started);
        if (code) return Fail(*started, ERROR_SERVICE_LOGON_FAILED);
        started->start.account = account;
        m_states.Changed(*started);
    });
    return false;
}

DWORD Starts::Run(Service& service) {
    const ServiceConfig& config = service.config;
    const std::shared_ptr<Account> account = std::move(service.start.account);
    Process* process =
        config.type == SERVICE_WIN32_SHARE_PROCESS ? m_processes.FindShared(config.commandLine) : nullptr;
    if (process && KeyOf(process->account) != KeyOf(config.account)) return ERROR_DIFFERENT_SERVICE_ACCOUNT;
    if (!process)
        if (DWORD code = m_processes.Start(config, *account, process)) return code;
    service.process = process;
    process->services.push_back(&service);
    service.start.isUnderWay = service.start.wasToldLate = service.wasKilled = false;
    service.start.isAwaited = service.start.done != nullptr;
    service.failures.started = BootMs();
    m_states.Set(service, {config.type, SERVICE_START_PENDING, 0, 0, 0, 0, FirstWaitHintMs});
    process->Tell({.key = service.key,
                   .name = service.name,
                   .control = {},
                   .arguments = service.start.arguments,
                   .done = std::exchange(service.start.done, nullptr)});
    return ERROR_SUCCESS;
}

void Starts::Again(Service& service) {
    std::vector<std::string> arguments = std::move(service.start.arguments);
    if (service.IsActive()) m_states.SetStopped(service, ERROR_PROCESS_ABORTED);
    if (const DWORD code = Start(service, std::move(arguments), nullptr); code && !service.start.isUnderWay) {
        Print("%s was not started: error %u", service.name.c_str(), code);
        m_states.Journalise(service);
    }
}

void Starts::TryLater(Service& service) {
    if (!std::exchange(service.start.wasToldLate, true))
        Print("%s is started later: there is not enough memory or too many processes or descriptors",
              service.name.c_str());
    service.action.Set(ResourcePause, [this, &service] { m_states.Changed(service); });
}

// What did not come as far as its main function.
void Starts::Fail(Service& service, DWORD code) {
    service.start.isUnderWay = service.start.isOwed = service.start.wasToldLate = false;
    service.start.arguments.clear();
    Print("%s was not started: error %u", service.name.c_str(), code);
    m_states.SetStopped(service, code);
    if (const Done done = std::exchange(service.start.done, nullptr)) done(code);
}

}  // namespace tqscm
