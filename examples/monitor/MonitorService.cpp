#include "MonitorService.h"

#include "TQLib/platform/Win32.h"

using namespace Quellan::Corvel;

MonitorProcessor::MonitorProcessor() : m_changed(false) {
    AddChangedEvent(m_changed.Handle());
}

void MonitorProcessor::Prepare() {
    m_watch = std::make_unique<Watch>(m_options);
    m_commands = std::make_unique<CommandThread>(*this, *m_watch);
    m_watch->Start();
    m_commands->Start();
}

unsigned int MonitorProcessor::Process(BYTEBuf&) {
    TQWaitList signals;
    signals.Add(m_changed.Handle());
    for (const auto& group : m_watch->Groups())
        signals.Add(group->ThreadHandle());
    unsigned int result = 0;
    for (std::size_t running = m_watch->Groups().size(); WaitForTurn(0);) {
        const HANDLE signal = signals.Wait(INFINITE);
        if (signal == m_changed.Handle()) continue;
        signals.Remove(signal);
        for (const auto& group : m_watch->Groups()) {
            if (group->ThreadHandle() != signal) continue;
            Tell(TQLogLevel::Exception, group->Name(), group->Report());
            result = group->ResultCode();
        }
        if (--running == 0) return result;
    }
    return 0;
}

void MonitorProcessor::Finish() {
    m_commands.reset();
    m_watch->Stop();
    m_hasFailed = m_watch->Summarise();
}

TQServiceOptions MonitorService::Options() const {
    TQServiceOptions options;
    options.description = L"Watches files and folders, and tells what changes and what fails.";
    options.failureActions = {{TQSvcFailureAction::Kind::Restart, 1000}};
    return options;
}

void MonitorService::ExecuteServiceMain(const TQStringArray& arguments) {
    TQStringArray given = arguments.Count() > 1 ? arguments : TQSysProc::CommandLine();
    given.Remove(0);
    const std::optional<::Options> options = ReadOptions(given);
    m_isMisused = !options || !options->intervalMs;
    if (m_isMisused) throw TQException(ERROR_INVALID_PARAMETER, L"monitor was not told what to watch.");
    m_processor.SetOptions(*options);
    TQService::ExecuteServiceMain(arguments);
}

void MonitorService::OnStateChanged(DWORD state) {
    if (m_loggedState.exchange(state) == state) return;
    TQLib::GetAppLog(true)->AddMsg(TQSvcState::Name(state), TQLogLevel::State, L"service");
}
