// monitor [--fix] [--interval SECONDS] TARGET... [--group TARGET...]...
// monitor --once [--fix] TARGET...
// monitor install [...] | uninstall | start [...] | stop | status
//
// Reads every file below the targets and reports each platform call that fails: what could not be done and why,
// in the user's language, on the console, and an entry in the system event log; then checks them again every
// SECONDS (5 if not said otherwise) and names the files that were added, removed or changed, and the owner of
// a target when it changed. A target whose access list lets strangers write, who are signed in and have no more
// to do with it, is told with that list; with --fix these rights are taken away, and each entry that is changed is
// told. Each group of targets, up to 16, is watched by a thread of its own; the checks run
// side by side in a pool of up to 16 threads. Commands on the standard input, one a line: pause, resume,
// report, stop. Ctrl+C and the signals that ask a process to end stop it too. With --once it ends after the
// first check. All that it tells goes to the application's log too, which is "monitor.tlg" beside the program
// unless the registry says otherwise.
//
// The same program is a service: `install` followed by what it is to watch makes it one, and the other words
// are for that service.
//
// The target "fault:" raises an access violation in the thread of its group, which ends with that code, as
// the report tells; "fault:FILE" does so once the file is there; "fault:check" does so in its check, which
// ends the checks of this target. All others go on.
//
// Ends with 0 when nothing failed, 1 when something did or strangers may write to a target, 2 for a wrong command
// line.
#include "MonitorService.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>

using namespace Quellan::Corvel;

namespace {

constexpr int ExitFailure = 1;
constexpr int ExitUsage = 2;

int ShowUsage() {
    TQConsole(TQConsole::Stream::Error)
        .Write(
            L"usage: monitor [--fix] [--once | --interval SECONDS] TARGET... [--group TARGET...]...\n"
            L"       monitor install [--fix] [--interval SECONDS] TARGET... [--group TARGET...]...\n"
            L"       monitor uninstall | start [TARGET...] | stop | status\n");
    return ExitUsage;
}

// Never destroyed: a request to end may come while the process ends.
const TQEvent& StopRequest() {
    static const TQEvent* const event = new TQEvent(true);
    return *event;
}

BOOL OnConsoleControl(DWORD event) {
    StopRequest().Set();
    // The process ends when this returns from any other event, and it is to report before.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
    return TRUE;
}

int CheckOnce(const Options& options) {
    StopRequest();
    SetConsoleCtrlHandler(nullptr, FALSE);
    SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
    Watch watch(options);
    watch.Start();
    TQWaitList ends;
    ends.Add(StopRequest().Handle());
    for (const auto& group : watch.Groups())
        ends.Add(group->ThreadHandle());
    for (std::size_t running = watch.Groups().size(); running > 0; --running) {
        const HANDLE end = ends.Wait(INFINITE);
        if (end == StopRequest().Handle()) break;
        ends.Remove(end);
    }
    // A second Ctrl+C ends the process at once.
    SetConsoleCtrlHandler(&OnConsoleControl, FALSE);
    watch.Stop();
    return watch.Summarise() ? ExitFailure : 0;
}

int Run() {
    TQStringArray arguments = TQSysProc::CommandLine();
    arguments.Remove(0);
    const std::optional<Options> options = ReadOptions(arguments);
    if (options && !options->intervalMs) return CheckOnce(*options);
    // Without arguments it may have been started as a service, which gets them from its manager.
    if (!options && !arguments.IsEmpty() && !TQServiceApp::IsWord(arguments[0])) return ShowUsage();
    MonitorService service;
    TQServiceMgr::RegisterService(&service);
    const DWORD code = TQServiceApp::Run(true);
    if (service.IsMisused()) return ShowUsage();
    return code ? static_cast<int>(code) : service.HasFailed() ? ExitFailure : 0;
}

}  // namespace

int main() {
    try {
        TQLib::SetAppName(L"monitor");
        TQLib::RegisterResourceStore(MessageStore, L"Monitor");
        return Run();
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(L"monitor");
        return 3;
    }
}
