// Services: their records, how they are started in order, and what is done when they fail.
#include "Launch.h"
#include "Manager.h"
#include "Print.h"
#include "platform/linux/internal/Wide.h"

#include <algorithm>
#include <set>

namespace tqscm {

namespace {

constexpr DWORD FirstWaitHintMs = 2000;
constexpr std::size_t DeepestDependencies = 100;

bool IsKnown(DWORD value, DWORD first, DWORD last) {
    return value >= first && value <= last;
}

bool IsTooLong(const std::string& text) {
    return WideLength(text) > MostServiceNameCharacters;
}

}  // namespace

std::string KeyOf(const std::string& name) {
    std::wstring wide = ToWide(name);
    CharUpperBuffW(wide.data(), static_cast<DWORD>(wide.size()));
    return ToUtf8(wide);
}

// What a registry key may be called, which takes a character less than a service.
bool IsServiceName(const std::string& name) {
    const bool isGood = std::ranges::none_of(
        name, [](char c) { return c == '/' || c == '\\' || (c >= 0 && c < ' ') || c == 0x7F; });
    return isGood && !name.empty() && WideLength(name) < MostServiceNameCharacters;
}

Manager::Service* Manager::Find(const std::string& key) const {
    const auto found = m_services.find(key);
    return found == m_services.end() ? nullptr : found->second.get();
}

// Services that were marked for deletion under an earlier manager go once they are seen to be stopped.
void Manager::LoadServices() {
    for (StoredService& stored : ReadServices()) {
        auto service = std::make_unique<Service>(m_loop);
        service->key = KeyOf(stored.name);
        service->name = stored.name;
        service->config = std::move(stored.config);
        service->isMarked = stored.isMarked;
        service->status = {service->config.type, SERVICE_STOPPED, 0, ERROR_SERVICE_NEVER_STARTED, 0, 0, 0};
        m_services.emplace(service->key, std::move(service));
    }
}

DWORD Manager::CheckConfig(const std::string& key, const ServiceConfig& config) const {
    if (config.type != SERVICE_WIN32_OWN_PROCESS && config.type != SERVICE_WIN32_SHARE_PROCESS)
        return ERROR_INVALID_PARAMETER;
    if (!IsKnown(config.start, SERVICE_AUTO_START, SERVICE_DISABLED) ||
        !IsKnown(config.errorControl, SERVICE_ERROR_IGNORE, SERVICE_ERROR_CRITICAL))
        return ERROR_INVALID_PARAMETER;
    if (config.commandLine.empty()) return ERROR_INVALID_PARAMETER;
    if (IsTooLong(config.displayName)) return ERROR_INVALID_NAME;
    for (const FailureAction& action : config.failure.actions)
        if (action.type > SC_ACTION_RUN_COMMAND || action.type == SC_ACTION_REBOOT)
            return ERROR_INVALID_PARAMETER;
    // What could not be said to anybody in one message.
    if (FormatMessage(ConfigReplyMessage{config}).size() > MostServiceMessageBytes)
        return ERROR_INVALID_PARAMETER;
    if (IsNameTaken(key, config.displayName)) return ERROR_DUPLICATE_SERVICE_NAME;
    Account account;
    if (DWORD code = FindAccount(config.account, account)) return code;
    return CheckDependencies(key, config);
}

bool Manager::IsNameTaken(const std::string& key, const std::string& displayName) const {
    const std::string displayKey = KeyOf(displayName);
    return std::ranges::any_of(m_services, [&](const auto& entry) {
        const std::string otherDisplayKey = KeyOf(entry.second->config.displayName);
        return entry.first != key &&
               (entry.first == displayKey || otherDisplayKey == displayKey || otherDisplayKey == key);
    });
}

DWORD Manager::CheckDependencies(const std::string& key, const ServiceConfig& config) const {
    for (const std::string& name : config.dependencies)
        if (!IsServiceName(name)) return ERROR_INVALID_NAME;
    return DependsOn(config, key, 0) ? ERROR_CIRCULAR_DEPENDENCY : ERROR_SUCCESS;
}

// What is deeper than any that make sense counts as a circle.
bool Manager::DependsOn(const ServiceConfig& config, const std::string& key, std::size_t depth) const {
    if (depth > DeepestDependencies) return true;
    return std::ranges::any_of(config.dependencies, [&](const std::string& name) {
        const std::string dependency = KeyOf(name);
        const Service* const service = Find(dependency);
        return dependency == key || (service && DependsOn(service->config, key, depth + 1));
    });
}

// In the order in which they can be stopped.
std::vector<const Manager::Service*> Manager::DependentsOf(const Service& service) const {
    std::vector<const Service*> dependents;
    const auto visit = [&](const auto& again, const Service& of) -> void {
        for (const auto& [key, other] : m_services) {
            const bool depends = std::ranges::any_of(
                other->config.dependencies, [&](const std::string& name) { return KeyOf(name) == of.key; });
            if (!depends || std::ranges::count(dependents, other.get())) continue;
            again(again, *other);
            dependents.push_back(other.get());
        }
    };
    visit(visit, service);
    return dependents;
}

bool Manager::HasActiveDependents(const Service& service) const {
    return std::ranges::any_of(DependentsOf(service),
                               [](const Service* dependent) { return dependent->IsActive(); });
}

void Manager::DeleteIfUnused(Service& service) {
    if (!service.isMarked || service.handles || service.IsActive() || service.isStarting) return;
    DeleteRecord(service.name);
    m_journal.Remove(service.name);
    m_services.erase(service.key);
}

void Manager::AutoStart(bool delayed) {
    for (const auto& [key, service] : m_services) {
        const bool isDelayed = service->config.delayed != 0;
        const bool wasNeverStarted = service->status.dwWin32ExitCode == ERROR_SERVICE_NEVER_STARTED;
        if (service->config.start != SERVICE_AUTO_START || isDelayed != delayed || !wasNeverStarted) continue;
        if (const DWORD code = BeginStart(*service, {}, -1); code && code != ERROR_SERVICE_ALREADY_RUNNING)
            Print("%s was not started: error %u", service->name.c_str(), code);
    }
}

// `asker` hears of the end of it, unless this fails at once.
DWORD Manager::BeginStart(Service& service, std::vector<std::string> arguments, int asker) {
    if (service.isMarked) return ERROR_SERVICE_MARKED_FOR_DELETE;
    if (service.config.start == SERVICE_DISABLED) return ERROR_SERVICE_DISABLED;
    if (service.IsActive() || service.isStarting) return ERROR_SERVICE_ALREADY_RUNNING;
    if (m_isEnding) return ERROR_SHUTDOWN_IN_PROGRESS;
    if (DependsOn(service.config, service.key, 0)) return ERROR_CIRCULAR_DEPENDENCY;
    for (const std::string& name : service.config.dependencies) {
        const Service* const dependency = Find(KeyOf(name));
        if (!dependency || dependency->isMarked) return ERROR_SERVICE_DEPENDENCY_DELETED;
    }
    service.action.Cancel();
    service.isStarting = true;
    service.arguments = std::move(arguments);
    service.starter = asker;
    // One that fails at once is found stopped later on.
    for (const std::string& name : service.config.dependencies)
        BeginStart(*Find(KeyOf(name)), {}, -1);
    m_hasNews = true;
    return ERROR_SUCCESS;
}

// Runs it once its dependencies do.
void Manager::GoOnStarting(Service& service) {
    for (const std::string& name : service.config.dependencies) {
        const Service* const dependency = Find(KeyOf(name));
        if (!dependency) return EndStart(service, ERROR_SERVICE_DEPENDENCY_DELETED);
        if (dependency->IsUp()) continue;
        const bool mayComeUp =
            dependency->isStarting ||
            (dependency->status.dwCurrentState == SERVICE_START_PENDING && !dependency->isHung);
        return mayComeUp ? void() : EndStart(service, ERROR_SERVICE_DEPENDENCY_FAIL);
    }
    if (DWORD code = RunService(service)) EndStart(service, code);
}

DWORD Manager::RunService(Service& service) {
    if (DWORD code = StartProcess(service)) return code;
    service.isStarting = false;
    SetStatus(service, {service.config.type, SERVICE_START_PENDING, 0, 0, 0, 0, FirstWaitHintMs});
    Tell(*service.process, {.service = service.key,
                            .control = {},
                            .arguments = std::move(service.arguments),
                            .asker = std::exchange(service.starter, -1)});
    return ERROR_SUCCESS;
}

// What did not come as far as its main function.
void Manager::EndStart(Service& service, DWORD code) {
    service.isStarting = false;
    m_hasNews = true;
    Answer(std::exchange(service.starter, -1), FormatMessage(ReplyMessage{code}));
    if (code) {
        Print("%s was not started: error %u", service.name.c_str(), code);
        SetStopped(service, code);
    }
}

void Manager::SetStatus(Service& service, const SERVICE_STATUS& status) {
    const SERVICE_STATUS before = std::exchange(service.status, status);
    service.status.dwServiceType = service.config.type;
    const bool isPending = service.IsActive() && status.dwCurrentState != SERVICE_RUNNING &&
                           status.dwCurrentState != SERVICE_PAUSED;
    service.isHung = false;
    if (isPending) {
        const auto limit = std::max(std::chrono::milliseconds(status.dwWaitHint), m_settings.requestLimit);
        service.hang.Set(limit, [this, &service] { service.isHung = m_hasNews = true; });
    } else {
        service.hang.Cancel();
    }
    if (before.dwCurrentState == status.dwCurrentState &&
        before.dwControlsAccepted == status.dwControlsAccepted && service.IsActive())
        return;
    m_hasNews = true;
    if (!service.IsActive()) Leave(service);
    Journalise(service);
}

void Manager::SetStopped(Service& service, DWORD code) {
    SetStatus(service, {service.config.type, SERVICE_STOPPED, 0, code, 0, 0, 0});
}

// Without a report of its own.
void Manager::SetCrashed(Service& service, DWORD code) {
    Print("%s ended without a report", service.name.c_str());
    SetStopped(service, code);
    OnFailure(service);
}

void Manager::Journalise(const Service& service) {
    JournalEntry entry;
    entry.status = service.status;
    if (const Process* const process = service.process) {
        entry.process = process->id;
        entry.commandLine = process->commandLine;
        entry.account = process->account;
        entry.isAlone = process->isAlone;
    }
    m_journal.Put(service.name, entry);
}

void Manager::OnFailure(Service& service) {
    const FailureActions& failure = service.config.failure;
    const auto now = Clock::now();
    const bool isLongAgo = failure.resetPeriod != INFINITE &&
                           now - service.lastFailure >= std::chrono::seconds(failure.resetPeriod);
    if (isLongAgo) service.failures = 0;
    const std::size_t index = service.failures++;
    service.lastFailure = now;
    if (failure.actions.empty() || m_isEnding || service.isMarked) return;
    const FailureAction& action = failure.actions[std::min(index, failure.actions.size() - 1)];
    if (action.type == SC_ACTION_NONE) return;
    service.action.Set(std::chrono::milliseconds(action.delay), [this, &service, type = action.type, index] {
        if (type == SC_ACTION_RESTART) {
            BeginStart(service, {}, -1);
        } else {
            RunFailureCommand(service, index + 1);
        }
    });
}

// As the service's own account. "%1%" in the command stands for how often the service has failed.
void Manager::RunFailureCommand(const Service& service, std::size_t failures) {
    std::string command = service.config.failureCommand;
    const std::string_view place = "%1%";
    if (const std::size_t at = command.find(place); at != command.npos)
        command.replace(at, place.size(), std::to_string(failures));
    pid_t pid = 0;
    Account account;
    DWORD code = FindAccount(service.config.account, account);
    if (!code) code = Launch(command, account, {}, pid);
    if (code) {
        Print("%s: the command after its failure was not run: error %u", service.name.c_str(), code);
    } else {
        AddProcess(pid, command, service.config.account, true).isFinishing = true;
    }
}

// After every change, for those who wait for one.
void Manager::GoOn() {
    while (std::exchange(m_hasNews, false)) {
        std::vector<std::string> keys;
        for (const auto& [key, service] : m_services)
            if (service->isMarked || (service->isStarting && !service->process)) keys.push_back(key);
        for (const std::string& key : keys) {
            Service* const service = Find(key);
            if (service->isStarting && !service->process)
                GoOnStarting(*service);
            else
                DeleteIfUnused(*service);
        }
        if (m_isEnding) StopNext();
    }
}

// From the services on which no other depends to those that they need.
void Manager::StopNext() {
    for (const auto& [key, service] : m_services) {
        if (!service->process || service->wasToldToStop || !service->IsUp() || HasActiveDependents(*service))
            continue;
        const DWORD accepted = service->status.dwControlsAccepted;
        if (!(accepted & (SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_STOP))) continue;
        service->wasToldToStop = true;
        const DWORD control =
            accepted & SERVICE_ACCEPT_SHUTDOWN ? SERVICE_CONTROL_SHUTDOWN : SERVICE_CONTROL_STOP;
        Tell(*service->process, {.service = key, .control = control, .arguments = {}});
    }
}

}  // namespace tqscm
