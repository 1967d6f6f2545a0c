#include "support/RecordingSink.h"

#include "TQLib/core/TQException.h"

namespace Quellan::Corvel::Test {

void RecordingSink::Write(const TQEventLogEntry& entry) {
    if (m_isRefusing) throw TQSysException(1502u, L"RecordingSink");
    const std::lock_guard guard(m_lock);
    m_entries.push_back({entry.source,
                         entry.eventId,
                         entry.category,
                         entry.type,
                         {entry.strings.begin(), entry.strings.end()},
                         {entry.data.begin(), entry.data.end()}});
}

}  // namespace Quellan::Corvel::Test
