// monitor TARGET...: reads every file below the targets and reports each platform call that fails, as a log
// block on the console and as an entry in the system event log. Ends with 0 when nothing failed, 1 when
// something did, 2 for a wrong command line.
#include "Monitor.h"

using namespace Quellan::Corvel;

int main() {
    TQConsole output(TQConsole::Stream::Output);
    try {
        const TQStringArray arguments = TQSysProc::CommandLine();
        if (arguments.Count() < 2) {
            TQConsole(TQConsole::Stream::Error).Write(L"monitor: name at least one file or folder\n");
            return 2;
        }
        TQLib::SetAppName(L"monitor");
        Monitor monitor(output);
        for (std::size_t i = 1; i < arguments.Count(); ++i)
            monitor.CheckTarget(arguments[i]);

        const MonitorSummary& summary = monitor.Summary();
        output.Write(TQString::Format(L"%I64u folders, %I64u files, %I64u bytes read, %I64u failures\n",
                                      summary.folders, summary.files, summary.bytes, summary.failures));
        return summary.failures == 0 ? 0 : 1;
    } catch (...) {
        TQCoreException::LogUnhandledCurrent(L"monitor");
        return 3;
    }
}
