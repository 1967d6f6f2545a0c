#include "TQLib/threads/TQThreadCPUTimer.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"

namespace Quellan::Corvel {

namespace {

TQTimeSpan SpanOf(const FILETIME& time) noexcept {
    return TQTimeSpan::FromSteps(static_cast<LONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

}  // namespace

TQThreadCPUTimer::TQThreadCPUTimer() : m_start(ThreadTime(GetCurrentThread())) {}

void TQThreadCPUTimer::Restart() {
    m_start = ThreadTime(GetCurrentThread());
}

TQTimeSpan TQThreadCPUTimer::Elapsed() const {
    return ThreadTime(GetCurrentThread()) - m_start;
}

TQTimeSpan TQThreadCPUTimer::ThreadTime(HANDLE thread) {
    FILETIME created, ended, kernel, user;
    if (!GetThreadTimes(thread, &created, &ended, &kernel, &user))
        TQSysException::ThrowLastError(L"TQThreadCPUTimer::ThreadTime");
    return SpanOf(kernel) + SpanOf(user);
}

}  // namespace Quellan::Corvel
