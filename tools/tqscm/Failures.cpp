#include "Failures.h"

#include "Print.h"

#include <algorithm>

namespace tqscm {

namespace {

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

}  // namespace

void Failures::Add(Service& service) {
    const FailureActions& failure = service.config.failure;
    const std::uint64_t now = BootMs();
    const bool isLongAgo = failure.resetPeriod != INFINITE &&
                           now - service.failures.last >= std::uint64_t{failure.resetPeriod} * 1000;
    if (isLongAgo) service.failures.count = 0;
    const std::size_t index = service.failures.count++;
    service.failures.quick = now - service.failures.started < QuickMs ? service.failures.quick + 1 : 0;
    service.failures.last = now;
    if (!failure.actions.empty() && !m_starts.HaveEnded() && !service.isMarked) {
        const FailureAction& action = failure.actions[std::min(index, failure.actions.size() - 1)];
        const bool isRestart = action.type == SC_ACTION_RESTART;
        if (isRestart && service.failures.quick == MostQuickFailures + 1)
            Print("%s fails again and again and is restarted ever later", service.name.c_str());
        service.failures.dueAction = action.type;
        service.failures.dueTime =
            now + (isRestart ? PauseAfter(service.failures.quick, action.delay) : action.delay);
        SetAction(service);
    }
    m_states.Journalise(service);
}

void Failures::SetAction(Service& service) {
    if (service.failures.dueAction == SC_ACTION_NONE) return;
    const std::uint64_t now = BootMs();
    const std::chrono::milliseconds left(service.failures.dueTime > now ? service.failures.dueTime - now : 0);
    service.action.Set(left, [this, &service] { DoAction(service); });
}

void Failures::DoAction(Service& service) {
    if (std::exchange(service.failures.dueAction, SC_ACTION_NONE) == SC_ACTION_RESTART) {
        const DWORD code = m_starts.Start(service, {}, nullptr);
        if (code && code != ERROR_SERVICE_ALREADY_RUNNING)
            Print("%s was not started: error %u", service.name.c_str(), code);
    } else {
        RunCommand(service);
    }
    m_states.Journalise(service);
}

// As the service's own account. "%1%" in the command stands for how often the service has failed.
void Failures::RunCommand(const Service& service) {
    std::string command = service.config.failureCommand;
    const std::string_view place = "%1%";
    if (const std::size_t at = command.find(place); at != command.npos)
        command.replace(at, place.size(), std::to_string(service.failures.count));
    const auto account = std::make_shared<Account>();
    const auto lookUp = [account, name = service.config.account] { return FindAccount(name, *account); };
    m_worker.Post(lookUp, [this, account, command, name = service.name](DWORD code) {
        if (!code) code = m_processes.RunCommand(command, *account);
        if (code) Print("%s: the command after its failure was not run: error %u", name.c_str(), code);
    });
}

}  // namespace tqscm
