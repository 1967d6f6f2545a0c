#include "Processes.h"

#include "ChildEnd.h"
#include "Identity.h"
#include "Print.h"
#include "ServiceTable.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <csignal>
#include <system_error>

namespace tqscm {

namespace {

// In which the processes of an earlier manager are back, unless they hang.
constexpr std::chrono::seconds ExpectLimit{5};
// After which a process's end is watched that could not be before.
constexpr std::chrono::milliseconds WatchPause{200};

}  // namespace

// A process.

Process::Process(EventLoop& loop, const Settings& settings, Processes& all, ProcessId ownId,
                 std::string commandLineOf, std::string accountOf, bool isAloneIn)
    : id(ownId),
      commandLine(std::move(commandLineOf)),
      account(std::move(accountOf)),
      isAlone(isAloneIn),
      m_settings(settings),
      m_all(all),
      m_limit(loop),
      m_commandLimit(loop) {}

Process::~Process() {
    if (m_link) m_link->Close();
}

void Process::Kill() const {
    // One that was just made has no group yet.
    if (kill(-id.pid, SIGKILL) != 0 && m_launched.pid) kill(m_launched.pid, SIGKILL);
}

void Process::EndHung() {
    m_endCode = ERROR_SERVICE_REQUEST_TIMEOUT;
    Kill();
}

// It has not called its dispatcher in time. Its end is what is answered.
void Process::WaitToConnect() {
    m_limit.Set(m_settings.requestLimit, [this] { Kill(); });
}

void Process::Expect() {
    m_isExpected = m_wasConnected = true;
    m_limit.Set(ExpectLimit, [this] { EndExpecting(); });
}

void Process::EndExpecting() {
    if (std::exchange(m_isExpected, false)) m_all.OnNoLongerExpected();
}

void Process::Connect(Link& link, const AttachMessage& message) {
    m_link = &link;
    m_launched = {};
    ++m_connections;
    link.SetOwner(*this);
    link.ComeFirst();
    link.Send(FormatMessage(ReplyMessage{ERROR_SUCCESS}));
    if (m_isStranger) {
        link.Hold();
        return m_all.m_owner.OnStranger(*this, message.services);
    }
    m_limit.Cancel();
    if (std::exchange(m_wasConnected, true)) {
        m_all.m_owner.OnBack(*this, message.services);
    } else {
        for (const NamedStatus& reported : message.services)
            m_all.m_owner.OnReport(*this, reported);
        for (Command& command : m_commands)
            command.deadline = Clock::now() + m_settings.requestLimit;
        SetCommandLimit();
    }
    Begin();
}

void Process::Know(const ServiceConfig* config, const std::vector<NamedStatus>& reported) {
    m_isStranger = false;
    m_limit.Cancel();
    if (config) {
        commandLine = config->commandLine;
        account = config->account;
        isAlone = config->type == SERVICE_WIN32_OWN_PROCESS;
    }
    m_link->GoOn();
    m_all.m_owner.OnBack(*this, reported);
    Begin();
}

void Process::Begin() {
    EndExpecting();
    SendNext();
}

void Process::OnMessage(Link& link, const std::string& packet) {
    try {
        Serve(link, packet);
    } catch (const std::exception&) {
        OnEnd(link);  // on the next connection it says all of it again
    }
}

void Process::Serve(Link& link, const std::string& packet) {
    StatusMessage status;
    DoneMessage done;
    if (ParseMessage(packet, status)) {
        m_all.m_owner.OnReport(*this, status.service);
    } else if (ParseMessage(packet, done) && m_isBusy) {
        OnDone(done.code);
    } else {
        // Nothing that it says can be believed.
        Print("process %d said what makes no sense and is ended", static_cast<int>(id.pid));
        link.Hold();
        Kill();
    }
}

// It has gone, or will be back as after another manager: it does not know any more what it was told.
void Process::OnEnd(Link& link) {
    link.Close();
    m_link = nullptr;
    ++m_connections;
    if (!std::exchange(m_isBusy, false)) return;
    Command command = std::move(m_commands.front());
    m_commands.pop_front();
    SetCommandLimit();
    if (command.done) command.done(ERROR_PROCESS_ABORTED);
}

// Before it connects for the first time, the limit is that for connecting.
void Process::Tell(Command command) {
    command.deadline = Clock::now() + m_settings.requestLimit;
    m_commands.push_back(std::move(command));
    if (m_wasConnected) SetCommandLimit();
    SendNext();
}

bool Process::WillRun(const std::string& key) const {
    return std::ranges::any_of(
        m_commands, [&](const Command& command) { return !command.control && command.key == key; });
}

// One at a time, as the process serves them.
void Process::SendNext() {
    if (!m_link || m_isBusy || m_isFinishing) return;
    if (m_commands.empty()) {
        if (!services.empty()) return;
        m_isFinishing = true;
        m_limit.Set(m_settings.requestLimit, [this] {
            Print("process %d does not end though its services have stopped, and is ended",
                  static_cast<int>(id.pid));
            Kill();
        });
        return m_link->Send(FormatMessage(FinishMessage()));
    }
    const Command& command = m_commands.front();
    m_isBusy = true;
    m_all.m_owner.OnTold(*this, command);
    m_link->Send(command.control ? FormatMessage(ControlMessage{command.name, *command.control})
                                 : FormatMessage(RunMessage{command.name, static_cast<DWORD>(isAlone),
                                                            command.arguments}));
}

void Process::SetCommandLimit() {
    const auto next = std::ranges::find(m_commands, false, &Command::isLate);
    if (next == m_commands.end()) return m_commandLimit.Cancel();
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next->deadline - Clock::now());
    m_commandLimit.Set(std::max(left, std::chrono::milliseconds(0)), [this] { OnCommandsLate(); });
}

// Who asked hears of it. What the process is at now it may still end; what it was not told it is not told any
// more.
void Process::OnCommandsLate() {
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
    SetCommandLimit();
    if (waiting) waiting(ERROR_SERVICE_REQUEST_TIMEOUT);
    for (const Command& command : late)
        Finish(command, ERROR_SERVICE_REQUEST_TIMEOUT);
}

void Process::Finish(const Command& command, DWORD code) {
    m_all.m_owner.OnAnswer(*this, command, code);
    if (command.done) command.done(code);
}

void Process::OnDone(DWORD code) {
    m_isBusy = false;
    Command command = std::move(m_commands.front());
    m_commands.pop_front();
    SetCommandLimit();
    Finish(command, code);
    SendNext();
}

void Process::Release(Service& service) {
    std::erase(services, &service);
    std::vector<Command> dropped;
    for (auto it = m_commands.begin() + (m_isBusy ? 1 : 0); it != m_commands.end();) {
        if (it->key != service.key) {
            ++it;
            continue;
        }
        dropped.push_back(std::move(*it));
        it = m_commands.erase(it);
    }
    if (!dropped.empty()) SetCommandLimit();
    for (const Command& command : dropped)
        if (command.done) command.done(ERROR_SERVICE_NOT_ACTIVE);
    SendNext();
}

// All of them.

Process* Processes::FindShared(const std::string& commandLine) const {
    const auto found = std::ranges::find_if(m_processes, [&](const auto& process) {
        return !process->isAlone && !process->m_isFinishing && process->commandLine == commandLine;
    });
    return found == m_processes.end() ? nullptr : found->get();
}

Process* Processes::Find(ProcessId id) const {
    const auto found =
        std::ranges::find_if(m_processes, [&](const auto& process) { return process->id == id; });
    return found == m_processes.end() ? nullptr : found->get();
}

Process& Processes::Add(ProcessId id, const std::string& commandLine, const std::string& account,
                        bool isAlone) {
    Process& added = *m_processes.emplace_back(
        std::make_unique<Process>(m_loop, m_settings, *this, id, commandLine, account, isAlone));
    WatchEnd(added);
    return added;
}

void Processes::WatchEnd(Process& process) {
    try {
        ChildEnd::Watch(m_loop, process.id.pid, [this, &process] { OnEnded(process); });
    } catch (const std::system_error&) {
        m_loop.After(WatchPause, [this, &process] { WatchEnd(process); });
    }
}

DWORD Processes::Start(const ServiceConfig& config, const Account& account, Process*& process) {
    Launched launched;
    if (DWORD code = Launch(config.commandLine, account, m_settings.socket, launched)) return code;
    process = &Add(IdOf(launched.pid), config.commandLine, config.account,
                   config.type == SERVICE_WIN32_OWN_PROCESS);
    process->m_launched = std::move(launched);
    process->WaitToConnect();
    return ERROR_SUCCESS;
}

DWORD Processes::RunCommand(const std::string& commandLine, const Account& account) {
    Launched launched;
    if (DWORD code = Launch(commandLine, account, {}, launched)) return code;
    Process& process = Add(IdOf(launched.pid), commandLine, account.name, true);
    process.m_launched = std::move(launched);
    process.m_isFinishing = true;
    return ERROR_SUCCESS;
}

Process& Processes::Adopt(const JournalEntry& entry) {
    Process& adopted = Add(entry.process, entry.commandLine, entry.account, entry.isAlone != 0);
    adopted.Expect();
    return adopted;
}

void Processes::AdoptStrangers() {
    for (const ProcessId& id : FindServiceProcesses(m_settings.socket)) {
        if (Find(id)) continue;
        Process& stranger = Add(id, {}, {}, true);
        stranger.m_isStranger = true;
        stranger.Expect();
    }
}

bool Processes::AreAllBack() const {
    return std::ranges::none_of(m_processes, [](const auto& process) { return process->m_isExpected; });
}

void Processes::OnNoLongerExpected() {
    if (AreAllBack() && m_whenAllBack) std::exchange(m_whenAllBack, nullptr)();
}

DWORD Processes::Attach(Link& link, const AttachMessage& message) {
    const auto found = std::ranges::find_if(m_processes, [&](const auto& process) {
        return process->id.pid == link.Process() && !process->m_link && !process->m_isFinishing;
    });
    if (message.version != ServiceProtocolVersion || found == m_processes.end())
        return ERROR_FAILED_SERVICE_CONTROLLER_CONNECT;
    (*found)->Connect(link, message);
    return ERROR_SUCCESS;
}

void Processes::KillAll() const {
    for (const auto& process : m_processes)
        if (!process->services.empty()) process->Kill();
}

void Processes::OnEnded(Process& process) {
    // What it said last counts.
    if (process.m_link) process.m_link->ReadRest();
    process.m_isFinishing = true;
    DWORD code = LaunchFailure(process.m_launched);
    if (code && process.services.empty())
        Print("%s was not run: error %u", process.commandLine.c_str(), code);
    if (!code) code = process.m_wasConnected ? process.m_endCode : ERROR_SERVICE_REQUEST_TIMEOUT;
    for (const Command& command : std::exchange(process.m_commands, {}))
        if (command.done) command.done(code);
    m_owner.OnEnded(process, code);
    const bool wasExpected = process.m_isExpected;
    std::erase_if(m_processes, [&](const auto& other) { return other.get() == &process; });
    if (wasExpected) OnNoLongerExpected();
}

}  // namespace tqscm
