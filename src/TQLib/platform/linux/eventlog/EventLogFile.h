// The file of one event log: lines that are appended whole, whoever else writes and whenever a writer is
// killed or power is lost. Where it becomes too large its newest part takes its place.
#pragma once

#include "TQLib/platform/linux/base/Fork.h"
#include "TQLib/platform/linux/eventlog/EventRecord.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Platform {

// The log's name, which is the file's too, of what OpenEventLogW or RegisterEventSourceW were asked for.
std::string_view EventLogNamed(std::wstring_view name) noexcept;

// Where a log is.
struct EventLogPlace {
    // Makes the file where it is missing. May throw std::bad_alloc.
    static DWORD Open(std::string_view log, EventLogPlace& place);

    Descriptor folder;
    std::string fileName;
    off_t mostBytes = 0;
    Descriptor file;  // under this name when it was opened
};

// For several threads, as for any number of other objects and processes on the same file. Results are Windows
// codes; all may throw std::bad_alloc.
class EventLogFile {
  public:
    explicit EventLogFile(EventLogPlace place)
        : m_place(std::move(place)), m_file(std::make_unique<ProcessDescriptor>(std::move(m_place.file))) {}

    // Gives the record its number and writes it to the disk. The oldest records make way.
    DWORD Append(EventRecord& record);
    // Removes all records, with a name after they were copied to a new file of that name.
    DWORD Clear(const char* backup);

  protected:
    int Fd() const noexcept TQ_REQUIRES(m_lock) { return m_file->Get(); }
    // Tells whether another file has taken this one's place, or none.
    DWORD CompareWithName(bool& isReplaced) const noexcept TQ_REQUIRES(m_lock);
    // Opens the file that has the name now.
    DWORD FollowName() TQ_REQUIRES(m_lock);

    mutable LongLock m_lock;  // the file's own lock does not keep threads apart that share a descriptor

  private:
    class ChangeLock;

    DWORD LockChanges(std::optional<ChangeLock>& lock) TQ_REQUIRES(m_lock);
    DWORD KeepNewest(off_t size, off_t lastBegin) TQ_REQUIRES(m_lock);
    DWORD Put(std::string_view text, off_t size) noexcept TQ_REQUIRES(m_lock);

    EventLogPlace m_place;  // without its file
    std::unique_ptr<ProcessDescriptor> m_file TQ_GUARDED_BY(m_lock);
};

// The same for a reader, who meets records in the order of their numbers.
class EventLogReader : public EventLogFile {
  public:
    using EventLogFile::EventLogFile;

    // Takes note of what was appended. `changed` tells that the log was cleared since, or its oldest records
    // were removed, and everything is new.
    DWORD Refresh(bool& changed);
    std::size_t Count() const noexcept {
        const Guard lock(m_lock);
        return m_index.size();
    }
    // By place, the oldest is 0. 1500 (ERROR_EVENTLOG_FILE_CORRUPT) where there no longer is such a record.
    DWORD Read(std::size_t place, EventRecord& record);
    // The place of a record's number, or Count() when there is none.
    std::size_t Find(DWORD number) const noexcept;
    DWORD NumberOf(std::size_t place) const noexcept {
        const Guard lock(m_lock);
        return m_index[place].number;
    }

  private:
    struct Line {
        DWORD number;
        off_t begin;
        std::size_t size;
    };

    DWORD Scan(off_t end) TQ_REQUIRES(m_lock);

    std::vector<Line> m_index TQ_GUARDED_BY(m_lock);
    off_t m_scanned TQ_GUARDED_BY(m_lock) = 0;  // up to here the file's lines are known
    std::string m_firstBytes
        TQ_GUARDED_BY(m_lock);  // of the file, by which a cleared and refilled one is told
};

}  // namespace Quellan::Platform
