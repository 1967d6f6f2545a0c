// monitor [--once | --interval SECONDS] TARGET... [--group TARGET...]...
//
// Reads every file below the targets and reports each platform call that fails, as a log block on the console
// and as an entry in the system event log; then checks them again every SECONDS (5 if not said otherwise) and
// names the files that were added, removed or changed, and the owner of a target when it changed. Each group
// of targets, up to 16, is watched by a thread of its own; the checks run side by side in a pool of up to 16
// threads. Commands on the standard input, one a line: pause, resume, report, stop. Ctrl+C and the signals
// that ask a process to end stop it too. With --once it ends after the first check. All that it tells goes to
// the application's log too, which is "monitor.tlg" beside the program unless the registry says otherwise.
//
// The target "fault:" raises an access violation in the thread of its group, which ends with that code, as
// the report tells; "fault:check" does so in its check, which ends the checks of this target. All others go
// on.
//
// Ends with 0 when nothing failed, 1 when something did, 2 for a wrong command line.
#include "CommandThread.h"
#include "platform/Win32.h"

#include <algorithm>

using namespace Quellan::Corvel;

namespace {

constexpr std::size_t MaxGroups = 16;
constexpr double MaxSeconds = 24 * 60 * 60;

struct Options {
    std::optional<DWORD> intervalMs = 5000;  // none: one check
    std::vector<TQStringArray> groups = std::vector<TQStringArray>(1);
};

// None for a wrong command line.
std::optional<Options> ReadOptions(const TQStringArray& arguments) {
    Options options;
    for (std::size_t i = 1; i < arguments.Count(); ++i) {
        if (arguments[i] == L"--once") {
            options.intervalMs.reset();
        } else if (arguments[i] == L"--interval" && i + 1 < arguments.Count()) {
            wchar_t* end = nullptr;
            const double seconds = wcstod(arguments[++i].c_str(), &end);
            if (*end != 0 || !(seconds >= 0.001 && seconds <= MaxSeconds)) return std::nullopt;
            options.intervalMs = static_cast<DWORD>(seconds * 1000);
        } else if (arguments[i] == L"--group") {
            options.groups.emplace_back();
        } else if (arguments[i].StartsWith(L"--")) {
            return std::nullopt;
        } else {
            options.groups.back().Add(arguments[i]);
        }
    }
    if (options.groups.size() > MaxGroups || std::ranges::any_of(options.groups, &TQStringArray::IsEmpty))
        return std::nullopt;
    return options;
}

std::atomic<HANDLE> g_stopEvent{nullptr};

BOOL OnConsoleControl(DWORD event) {
    SetEvent(g_stopEvent);
    // The process ends when this returns from any other event, and it is to end in order.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(INFINITE);
    return TRUE;
}

// Returns when a stop is requested or all groups have ended.
void Watch(const GroupList& groups, const TQEvent& stop) {
    TQWaitList ends;
    ends.Add(stop.Handle());
    for (const auto& group : groups)
        ends.Add(group->ThreadHandle());
    for (std::size_t running = groups.size(); running > 0; --running) {
        const HANDLE ended = ends.Wait(INFINITE);
        if (ended == stop.Handle()) return;
        ends.Remove(ended);
        for (const auto& group : groups)
            if (group->ThreadHandle() == ended && group->HasFailed())
                Tell(TQLogLevel::Exception, group->Name(), group->Report());
    }
}

int Run(const Options& options) {
    CheckPool pool;
    GroupList groups;
    for (const TQStringArray& targets : options.groups)
        groups.push_back(std::make_unique<GroupThread>(groups.size() + 1, targets, options.intervalMs, pool));
    const TQEvent stop(true);
    CommandThread commands(groups, pool, stop);
    if (options.intervalMs) {
        g_stopEvent = stop.Handle();
        // Also where this process was started to ignore Ctrl+C, as scripts do with what they start.
        SetConsoleCtrlHandler(nullptr, FALSE);
        SetConsoleCtrlHandler(&OnConsoleControl, TRUE);
    }
    Tell(TQLogLevel::State, L"monitor",
         TQString::Format(L"monitor runs as %s\n", TQSysProc::CurrentUser().FullName()));
    for (const auto& group : groups)
        group->Start();
    if (options.intervalMs) commands.Start();
    Watch(groups, stop);
    // Who cannot wait for the end of the checks presses Ctrl+C again.
    SetConsoleCtrlHandler(&OnConsoleControl, FALSE);

    for (const auto& group : groups)
        group->Stop();
    for (const auto& group : groups)
        group->WaitForComplete(INFINITE);
    pool.StopThreads();
    CheckSummary all;
    bool hasFailed = false;
    for (const auto& group : groups) {
        all += group->Summary();
        hasFailed = hasFailed || group->HasFailed();
        if (options.intervalMs) Tell(TQLogLevel::State, group->Name(), group->Report());
    }
    Tell(TQLogLevel::State, L"monitor",
         TQString::Format(L"%I64u folders, %I64u files, %I64u bytes read, %I64u failures\n", all.folders,
                          all.files, all.bytes, all.failures));
    return hasFailed || all.failures > 0 ? 1 : 0;
}

}  // namespace

int main() {
    try {
        const std::optional<Options> options = ReadOptions(TQSysProc::CommandLine());
        if (!options) {
            TQConsole(TQConsole::Stream::Error)
                .Write(L"usage: monitor [--once | --interval SECONDS] TARGET... [--group TARGET...]...\n");
            return 2;
        }
        TQLib::SetAppName(L"monitor");
        return Run(*options);
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(L"monitor");
        return 3;
    }
}
