#include "GroupThread.h"

#include "Fault.h"
#include "TQLib/platform/Win32.h"

#include <algorithm>
#include <cwchar>
#include <utility>

using namespace Quellan::Corvel;

namespace {

constexpr std::size_t MostNamed = 4;  // targets in a report

}  // namespace

GroupThread::GroupThread(std::size_t number, const TQStringArray& targets, const Options& options,
                         CheckPool& pool)
    : m_number(number),
      m_intervalMs(options.intervalMs),
      m_pool(pool),
      m_targetNames(targets.Count() <= MostNamed ? targets.Join(L" ")
                                                 : TQString::Format(L"%zu targets", targets.Count())) {
    for (const TQString& path : targets) {
        if (path.StartsWith(Fault) && path != Target::FaultyCheck)
            m_faultFile = path.Mid(std::wcslen(Fault));
        else
            m_targets.push_back(
                {std::make_unique<Target>(
                     path, options.isToFix, [this] { return Stopped(); }, [this] { OnCheckEnd(); }),
                 pool.GetNewRequestorID()});
    }
}

GroupThread::~GroupThread() {
    EndThread();
    m_pool.StopThreads();
}

void GroupThread::Pause(bool pause) {
    m_isPaused = pause;
    m_pauseChanged.Set();
}

CheckSummary GroupThread::Summary() const {
    CheckSummary summary;
    for (const Watched& watched : m_targets)
        summary += watched.target->Summary();
    return summary;
}

bool GroupThread::HasFailed() const {
    return (!ThreadRunning() && ResultCode() != 0) ||
           std::ranges::any_of(m_targets, [](const Watched& watched) { return watched.target->HasFailed(); });
}

TQString GroupThread::Name() const {
    return TQString::Format(L"group %zu", m_number);
}

TQString GroupThread::Report() const {
    const CheckSummary summary = Summary();
    TQString report = TQString::Format(
        L"%s (%s): %I64u checks, %I64u folders, %I64u files, %I64u bytes read, %I64u changes, "
        L"%I64u failures, ",
        Name(), m_targetNames, summary.checks, summary.folders, summary.files, summary.bytes, summary.changes,
        summary.failures);
    if (ThreadRunning())
        report += m_isPaused ? L"paused\n" : L"watching\n";
    else if (ResultCode() == 0)
        report += L"stopped\n";
    else
        report.AppendFormat(L"ended with 0x%08X %s\n", ResultCode(), ResultMessage());
    return report;
}

unsigned int GroupThread::RunWork(BYTEBuf&) {
    if (IsFaultDue()) RaiseFault();
    TQWaitList signals;
    for (const TQEvent* event : {&StopEvent(), &m_pauseChanged, &m_allChecked})
        signals.Add(event->Handle());
    CheckAll();
    bool hasBegun = false;
    bool isResting = false;
    for (;;) {
        const HANDLE signal = signals.Wait(m_isPaused || !m_intervalMs ? INFINITE : *m_intervalMs);
        if (signal == StopEvent().Handle()) return 0;
        const bool isAllChecked = m_underWay == 0;
        if (isAllChecked && !m_intervalMs) return 0;
        if (isAllChecked && !std::exchange(hasBegun, true)) Tell(TQLogLevel::State, Name(), Report());
        const bool isPaused = m_isPaused;
        if (isPaused != isResting && (!isPaused || isAllChecked)) {
            isResting = isPaused;
            Tell(TQLogLevel::State, Name(),
                 TQString::Format(L"%s %s\n", Name(), isPaused ? L"paused" : L"resumed"));
        }
        if (isPaused || signal == m_allChecked.Handle()) continue;
        if (IsFaultDue()) RaiseFault();
        CheckAll();
    }
}

bool GroupThread::IsFaultDue() const {
    if (!m_faultFile) return false;
    return m_faultFile->IsEmpty() || GetFileAttributesW(m_faultFile->c_str()) != INVALID_FILE_ATTRIBUTES;
}

void GroupThread::CheckAll() {
    ++m_underWay;
    try {
        for (const Watched& watched : m_targets) {
            ++m_underWay;
            if (!m_pool.Post(*watched.target, watched.requestorID)) --m_underWay;
        }
    } catch (...) {
        OnCheckEnd();
        throw;
    }
    OnCheckEnd();
}

void GroupThread::OnCheckEnd() {
    if (--m_underWay == 0) m_allChecked.Set();
}
