#include "TQLib/threads/TQThreadPriority.h"

#include "TQLib/core/TQException.h"
#include "TQLib/platform/Platform.h"
#include "TQLib/text/memory/TQHandle.h"

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
