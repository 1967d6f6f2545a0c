#include "Watch.h"

#include "TQLib/platform/Win32.h"

using namespace Quellan::Corvel;

Watch::Watch(const Options& options) : m_isOnce(!options.intervalMs) {
    for (const TQStringArray& targets : options.groups)
        m_groups.push_back(std::make_unique<GroupThread>(m_groups.size() + 1, targets, options, m_pool));
}

void Watch::Start() {
    Tell(TQLogLevel::State, L"monitor",
         TQString::Format(L"monitor runs as %s\n", TQSysProc::CurrentUser().FullName()));
    for (const auto& group : m_groups)
        group->Start();
}

void Watch::Pause(bool pause) {
    for (const auto& group : m_groups)
        group->Pause(pause);
}

void Watch::Report() const {
    for (const auto& group : m_groups)
        Tell(TQLogLevel::State, group->Name(), group->Report());
    Tell(TQLogLevel::State, L"pool", m_pool.Report());
}

void Watch::Stop() {
    for (const auto& group : m_groups)
        group->Stop();
    for (const auto& group : m_groups)
        group->WaitForComplete(INFINITE);
    m_pool.StopThreads();
}

bool Watch::Summarise() const {
    CheckSummary all;
    bool hasFailed = false;
    for (const auto& group : m_groups) {
        all += group->Summary();
        hasFailed = hasFailed || group->HasFailed();
        if (!m_isOnce) Tell(TQLogLevel::State, group->Name(), group->Report());
    }
    Tell(TQLogLevel::State, L"monitor",
         TQString::Format(L"%I64u folders, %I64u files, %I64u bytes read, %I64u failures\n", all.folders,
                          all.files, all.bytes, all.failures));
    return hasFailed || all.failures > 0 || all.exposed > 0;
}
