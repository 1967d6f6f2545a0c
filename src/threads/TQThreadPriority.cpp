#include "threads/TQThreadPriority.h"

#include "core/TQException.h"
#include "platform/Win32.h"
#include "text/TQHandle.h"

namespace Quellan::Corvel {

TQThreadPriority::TQThreadPriority(int priority, bool raiseOnly)
    : m_priority(priority), m_previous(GetThreadPriority(GetCurrentThread())) {
    constexpr const wchar_t* where = L"TQThreadPriority::TQThreadPriority";
    if (m_previous == THREAD_PRIORITY_ERROR_RETURN) TQSysException::ThrowLastError(where);
    if (priority == m_previous || (raiseOnly && priority < m_previous)) return;
    if (!SetThreadPriority(GetCurrentThread(), priority)) TQSysException::ThrowLastError(where);
    m_hasChanged = true;
}

TQThreadPriority::~TQThreadPriority() {
    if (!m_hasChanged) return;
    const _TQLastErrorKeeper keeper;
    SetThreadPriority(GetCurrentThread(), m_previous);
}

}  // namespace Quellan::Corvel
