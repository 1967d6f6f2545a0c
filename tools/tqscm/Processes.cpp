#include "Processes.h"

#include "ChildEnd.h"
#include "FoundProcesses.h"
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
      m_commands(loop, settings,
                 [this](const Command& command, DWORD code) {
                     m_all.m_owner.OnAnswer(*this, command, code);
                     if (command.done) command.done(code);
                 }),
      m_limit(loop) {}

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
    m_commands.BeginLimits();
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
        m_commands.BeginLimits();
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
    } else if (ParseMessage(packet, done) && m_commands.IsBusy()) {
        m_commands.Answer(done.code);
        SendNext();
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
    m_commands.Forget();
}

void Process::Tell(Command command) {
    m_commands.Add(std::move(command));
    SendNext();
}

// One at a time, as the process serves them.
void Process::SendNext() {
    if (!m_link || m_commands.IsBusy() || m_isFinishing) return;
    if (m_commands.AreEmpty()) {
        if (!services.empty()) return;
        m_isFinishing = true;
        m_limit.Set(m_settings.requestLimit, [this] {
            Print("process %d does not end though its services have stopped, and is ended",
                  static_cast<int>(id.pid));
            Kill();
        });
        return m_link->Send(FormatMessage(FinishMessage()));
    }
    const Command& command = m_commands.Tell();
    m_all.m_owner.OnTold(*this, command);
    m_link->Send(command.control ? FormatMessage(ControlMessage{command.name, *command.control})
                                 : FormatMessage(RunMessage{command.name, static_cast<DWORD>(isAlone),
                                                            command.arguments}));
}

void Process::Release(Service& service) {
    std::erase(services, &service);
    m_commands.Drop(service.key);
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
    process.m_commands.End(code);
    m_owner.OnEnded(process, code);
    const bool wasExpected = process.m_isExpected;
    std::erase_if(m_processes, [&](const auto& other) { return other.get() == &process; });
    if (wasExpected) OnNoLongerExpected();
}

}  // namespace tqscm
