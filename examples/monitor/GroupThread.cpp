#include "GroupThread.h"

#include "platform/Win32.h"

using namespace Quellan::Corvel;

GroupThread::GroupThread(std::size_t number, TQStringArray targets, std::optional<DWORD> intervalMs)
    : m_number(number), m_targets(std::move(targets)), m_intervalMs(intervalMs) {}

void GroupThread::Pause(bool pause) {
    m_isPaused = pause;
    m_pauseChanged.Set();
}

MonitorSummary GroupThread::Summary() const {
    const TQThreadSynch::TQSynchLock guard(m_lock);
    return m_summary;
}

TQString GroupThread::Report() const {
    const MonitorSummary summary = Summary();
    TQString report = TQString::Format(
        L"group %zu (%s): %I64u checks, %I64u folders, %I64u files, %I64u bytes read, %I64u changes, "
        L"%I64u failures, ",
        m_number, m_targets.Join(L" "), summary.checks, summary.folders, summary.files, summary.bytes,
        summary.changes, summary.failures);
    if (ThreadRunning())
        report += m_isPaused ? L"paused\n" : L"watching\n";
    else if (ResultCode() == 0)
        report += L"stopped\n";
    else
        report.AppendFormat(L"ended with 0x%08X %s\n", ResultCode(), ResultMessage());
    return report;
}

unsigned int GroupThread::RunWork(BYTEBuf&) {
    TQConsole console(TQConsole::Stream::Output);
    Monitor monitor(console, [this] { return Stopped(); });
    const auto check = [&] {
        monitor.Check(m_targets);
        const TQThreadSynch::TQSynchLock guard(m_lock);
        m_summary = monitor.Summary();
    };
    check();
    if (!m_intervalMs) return 0;

    console.Write(Report());
    TQWaitList signals;
    signals.Add(StopEvent().Handle());
    signals.Add(m_pauseChanged.Handle());
    for (;;) {
        const HANDLE signal = signals.Wait(m_isPaused ? INFINITE : *m_intervalMs);
        if (signal == StopEvent().Handle()) return 0;
        const bool isPaused = m_isPaused;
        if (signal)
            console.Write(TQString::Format(L"group %zu %s\n", m_number, isPaused ? L"paused" : L"resumed"));
        if (!isPaused) check();
    }
}
