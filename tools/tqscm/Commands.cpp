#include "Commands.h"

#include <algorithm>
#include <iterator>

namespace tqscm {

void Commands::BeginLimits() {
    m_haveLimits = true;
    for (Command& command : m_commands)
        command.deadline = Clock::now() + m_settings.requestLimit;
    SetLimit();
}

void Commands::Add(Command command) {
    command.deadline = Clock::now() + m_settings.requestLimit;
    m_commands.push_back(std::move(command));
    SetLimit();
}

bool Commands::WillRun(const std::string& key) const {
    return std::ranges::any_of(
        m_commands, [&](const Command& command) { return !command.control && command.key == key; });
}

const Command& Commands::Tell() {
    m_isBusy = true;
    return m_commands.front();
}

Command Commands::TakeFirst() {
    m_isBusy = false;
    Command command = std::move(m_commands.front());
    m_commands.pop_front();
    SetLimit();
    return command;
}

void Commands::Answer(DWORD code) {
    m_finish(TakeFirst(), code);
}

void Commands::Forget() {
    if (!m_isBusy) return;
    const Command command = TakeFirst();
    if (command.done) command.done(ERROR_PROCESS_ABORTED);
}

void Commands::Drop(const std::string& key) {
    const auto untold = m_commands.begin() + (m_isBusy ? 1 : 0);
    const auto kept = std::stable_partition(untold, m_commands.end(),
                                            [&](const Command& command) { return command.key != key; });
    const std::vector<Command> dropped(std::make_move_iterator(kept),
                                       std::make_move_iterator(m_commands.end()));
    m_commands.erase(kept, m_commands.end());
    if (!dropped.empty()) SetLimit();
    for (const Command& command : dropped)
        if (command.done) command.done(ERROR_SERVICE_NOT_ACTIVE);
}

void Commands::End(DWORD code) {
    m_isBusy = false;
    m_limit.Cancel();
    for (const Command& command : std::exchange(m_commands, {}))
        if (command.done) command.done(code);
}

void Commands::SetLimit() {
    if (!m_haveLimits) return;
    const auto next = std::ranges::find(m_commands, false, &Command::isLate);
    if (next == m_commands.end()) return m_limit.Cancel();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next->deadline - Clock::now());
    m_limit.Set(std::max(left, std::chrono::milliseconds(0)), [this] { OnLate(); });
}

void Commands::OnLate() {
    const auto now = Clock::now();
    std::function<void(DWORD)> waiting;
    if (m_isBusy && m_commands.front().deadline <= now) {
        m_commands.front().isLate = true;
        waiting = std::exchange(m_commands.front().done, nullptr);
    }
    std::deque<Command> late;
    const auto first = m_commands.begin() + (m_isBusy ? 1 : 0);
    const auto end =
        std::find_if(first, m_commands.end(), [&](const Command& command) { return command.deadline > now; });
    std::move(first, end, std::back_inserter(late));
    m_commands.erase(first, end);
    SetLimit();
    if (waiting) waiting(ERROR_SERVICE_REQUEST_TIMEOUT);
    for (const Command& command : late)
        m_finish(command, ERROR_SERVICE_REQUEST_TIMEOUT);
}

}  // namespace tqscm
