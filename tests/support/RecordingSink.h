// An event log that a test can read.
#pragma once

#include "TQLib/core/TQEventLog.h"
#include "TQLib/core/TQException.h"

#include <mutex>
#include <string>
#include <vector>

namespace Quellan::Corvel::Test {

// Takes the place of the event log while it lives.
class RecordingSink : public TQEventLogSink {
  public:
    struct Entry {
        std::wstring source;
        DWORD eventId;
        WORD category;
        TQEventType type;
        std::vector<std::wstring> strings;
        std::vector<BYTE> data;
    };

    RecordingSink() : m_previous(TQEventLog::SetSink(this)) {}
    ~RecordingSink() override { TQEventLog::SetSink(m_previous); }

    // From now on every entry is refused.
    void Refuse() { m_isRefusing = true; }

    void Write(const TQEventLogEntry& entry) override {
        if (m_isRefusing) throw TQSysException(1502u, L"RecordingSink");
        const std::lock_guard guard(m_lock);
        m_entries.push_back({entry.source,
                             entry.eventId,
                             entry.category,
                             entry.type,
                             {entry.strings.begin(), entry.strings.end()},
                             {entry.data.begin(), entry.data.end()}});
    }

    std::vector<Entry> Entries() const {
        const std::lock_guard guard(m_lock);
        return m_entries;
    }

  private:
    TQEventLogSink* m_previous;
    mutable std::mutex m_lock;
    std::vector<Entry> m_entries;
    bool m_isRefusing = false;
};

}  // namespace Quellan::Corvel::Test
