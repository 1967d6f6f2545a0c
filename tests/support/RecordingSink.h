// An event log that a test can read.
#pragma once

#include "TQLib/core/TQEventLog.h"

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

    void Write(const TQEventLogEntry& entry) override;

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
