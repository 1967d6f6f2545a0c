#include "TQLib/platform/linux/eventlog/EventLog.h"

#include "TQLib/platform/linux/base/Clock.h"
#include "TQLib/platform/linux/base/ComputerName.h"
#include "TQLib/platform/linux/base/Fail.h"
#include "TQLib/platform/linux/base/FaultPoint.h"
#include "TQLib/platform/linux/base/HandleTable.h"
#include "TQLib/platform/linux/base/Lock.h"
#include "TQLib/platform/linux/base/Process.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/eventlog/EventLogFile.h"
#include "TQLib/platform/linux/eventlog/Syslog.h"

#include <cstddef>
#include <cstring>
#include <cwchar>
#include <optional>

namespace Quellan::Platform {

namespace {

constexpr std::size_t LongestString = 31'839;
constexpr DWORD MostData = 61'440;
constexpr DWORD RecordMark = 0x654C664C;

class EventSource : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "event source", .closedByCloseHandle = false};

    EventSource(std::string_view name, EventLogPlace place)
        : Object(Kind), m_name(name), m_file(std::move(place)) {}

    // Fills in what all of the source's events have in common, and writes the event.
    DWORD Report(EventRecord& record) {
        const timespec now = ReadClock(CLOCK_REALTIME);
        record.time = std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
        record.source = m_name;
        record.computer = ToUtf8(ComputerName());
        record.process = GetCurrentProcessId();
        record.user = geteuid();
        if (DWORD code = m_file.Append(record)) return code;
        SendToSyslog(record);
        return ERROR_SUCCESS;
    }

  private:
    const std::string m_name;
    EventLogFile m_file;
};

std::string PackRecord(const EventRecord& record) {
    std::string packed(sizeof(EVENTLOGRECORD), '\0');
    const auto addText = [&packed](std::string_view text) {
        const std::wstring wide = ToWide(text);
        packed.append(reinterpret_cast<const char*>(wide.c_str()), (wide.size() + 1) * sizeof(wchar_t));
    };
    EVENTLOGRECORD header{};
    addText(record.source);
    addText(record.computer);
    header.StringOffset = static_cast<DWORD>(packed.size());
    header.UserSidOffset = header.StringOffset;
    for (const std::string& text : record.strings)
        addText(text);
    header.DataOffset = static_cast<DWORD>(packed.size());
    packed += record.data;
    packed.resize((packed.size() + sizeof(DWORD) - 1) / sizeof(DWORD) * sizeof(DWORD));
    header.Length = static_cast<DWORD>(packed.size() + sizeof header.Length);
    packed.append(reinterpret_cast<const char*>(&header.Length), sizeof header.Length);

    header.Reserved = RecordMark;
    header.RecordNumber = record.number;
    header.TimeGenerated = static_cast<DWORD>(record.time / 1000);
    header.TimeWritten = header.TimeGenerated;
    header.EventID = record.id;
    header.EventType = record.type;
    header.NumStrings = static_cast<WORD>(record.strings.size());
    header.EventCategory = record.category;
    header.DataLength = static_cast<DWORD>(record.data.size());
    std::memcpy(packed.data(), &header, sizeof header);
    return packed;
}

// A log that is read, with the place between two records that its reader has come to.
class EventLog : public Object {
  public:
    static constexpr ObjectKind Kind{.name = "event log", .closedByCloseHandle = false};

    explicit EventLog(EventLogPlace place) : Object(Kind), m_log(std::move(place)) {}

    DWORD Count(DWORD& count) {
        const Guard lock(m_lock);
        const DWORD code = Refresh();
        count = static_cast<DWORD>(m_log.Count());
        return code;
    }

    DWORD Oldest(DWORD& number) {
        const Guard lock(m_lock);
        const DWORD code = Refresh();
        number = m_log.Count() ? m_log.NumberOf(0) : 0;
        return code;
    }

    DWORD Read(DWORD flags, DWORD number, char* buffer, DWORD size, DWORD& got, DWORD& needed) {
        const Guard lock(m_lock);
        const bool forwards = flags & EVENTLOG_FORWARDS_READ;
        if (DWORD code = Refresh()) return code;
        if (flags & EVENTLOG_SEEK_READ) {
            const std::size_t found = m_log.Find(number);
            if (found == m_log.Count()) return ERROR_INVALID_PARAMETER;
            m_place = forwards ? found : found + 1;
        } else if (m_clearedSinceRead) {
            m_clearedSinceRead = false;
            return ERROR_EVENTLOG_FILE_CHANGED;
        }
        m_clearedSinceRead = false;
        std::size_t place = m_place.value_or(forwards ? 0 : m_log.Count());
        got = needed = 0;
        while (forwards ? place < m_log.Count() : place > 0) {
            EventRecord record;
            if (DWORD code = m_log.Read(forwards ? place : place - 1, record)) return code;
            const std::string packed = PackRecord(record);
            if (packed.size() > size - got) {
                if (got > 0) break;
                needed = static_cast<DWORD>(packed.size());
                return ERROR_INSUFFICIENT_BUFFER;
            }
            packed.copy(buffer + got, packed.size());
            got += static_cast<DWORD>(packed.size());
            place += forwards ? 1 : std::size_t(-1);
        }
        m_place = place;
        return got > 0 ? ERROR_SUCCESS : ERROR_HANDLE_EOF;
    }

    DWORD Clear(const char* backup) { return m_log.Clear(backup); }

  private:
    DWORD Refresh() TQ_REQUIRES(m_lock) {
        bool changed = false;
        const DWORD code = m_log.Refresh(changed);
        if (changed) {
            m_clearedSinceRead |= m_place.has_value();
            m_place.reset();
        }
        return code;
    }

    LongLock m_lock;
    EventLogReader m_log;
    std::optional<std::size_t> m_place TQ_GUARDED_BY(m_lock);  // before the first read there is none
    bool m_clearedSinceRead TQ_GUARDED_BY(m_lock) = false;
};

// The checks and the opening that sources and logs share.
DWORD OpenLog(const wchar_t* server, const wchar_t* name, EventLogPlace& place) {
    if (server && *server) return RPC_S_SERVER_UNAVAILABLE;
    if (!name || !*name) return ERROR_INVALID_PARAMETER;
    return EventLogPlace::Open(EventLogNamed(name), place);
}

DWORD AddStrings(std::span<const wchar_t* const> strings, EventRecord& record) {
    for (const wchar_t* text : strings) {
        const std::wstring_view view(text ? text : L"");
        if (view.size() > LongestString) return RPC_S_INVALID_BOUND;
        record.strings.push_back(ToUtf8(view));
    }
    return ERROR_SUCCESS;
}

}  // namespace

HANDLE RegisterEventSourceW(const wchar_t* server, const wchar_t* source) noexcept {
    if (DWORD code = FaultDue("RegisterEventSourceW")) return Fail(code, nullptr);
    HANDLE handle = nullptr;
    const DWORD code = WithMemory([&] {
        EventLogPlace place;
        if (DWORD opened = OpenLog(server, source, place)) return opened;
        return NewHandle<EventSource>(handle, 0, ToUtf8(source), std::move(place));
    });
    return code ? Fail(code, nullptr) : handle;
}

BOOL DeregisterEventSource(HANDLE source) noexcept {
    if (DWORD code = CloseHandleOf(source, &EventSource::Kind)) return Fail(code, FALSE);
    return TRUE;
}

BOOL ReportEventW(HANDLE source, WORD type, WORD category, DWORD id, void* userSid, WORD stringCount,
                  DWORD dataSize, const wchar_t** strings, void* data) noexcept {
    if (DWORD code = FaultDue("ReportEventW")) return Fail(code, FALSE);
    const HandleRef<EventSource> object(source);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (userSid) return Fail(ERROR_NOT_SUPPORTED, FALSE);
    if (!IsEventType(type) || (stringCount && !strings) || (dataSize && !data))
        return Fail(ERROR_INVALID_PARAMETER, FALSE);
    if (dataSize > MostData) return Fail(RPC_S_INVALID_BOUND, FALSE);
    const DWORD code = WithMemory([&] {
        EventRecord record;
        record.id = id;
        record.type = type;
        record.category = category;
        if (dataSize) record.data.assign(static_cast<const char*>(data), dataSize);
        if (DWORD invalid = AddStrings({strings, stringCount}, record)) return invalid;
        return object->Report(record);
    });
    return code ? Fail(code, FALSE) : TRUE;
}

HANDLE OpenEventLogW(const wchar_t* server, const wchar_t* log) noexcept {
    if (DWORD code = FaultDue("OpenEventLogW")) return Fail(code, nullptr);
    HANDLE handle = nullptr;
    const DWORD code = WithMemory([&] {
        EventLogPlace place;
        if (DWORD opened = OpenLog(server, log, place)) return opened;
        return NewHandle<EventLog>(handle, 0, std::move(place));
    });
    return code ? Fail(code, nullptr) : handle;
}

BOOL CloseEventLog(HANDLE log) noexcept {
    if (DWORD code = CloseHandleOf(log, &EventLog::Kind)) return Fail(code, FALSE);
    return TRUE;
}

BOOL GetNumberOfEventLogRecords(HANDLE log, DWORD* count) noexcept {
    if (DWORD code = FaultDue("GetNumberOfEventLogRecords")) return Fail(code, FALSE);
    const HandleRef<EventLog> object(log);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!count) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] { return object->Count(*count); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL GetOldestEventLogRecord(HANDLE log, DWORD* number) noexcept {
    if (DWORD code = FaultDue("GetOldestEventLogRecord")) return Fail(code, FALSE);
    const HandleRef<EventLog> object(log);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    if (!number) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory([&] { return object->Oldest(*number); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL ReadEventLogW(HANDLE log, DWORD flags, DWORD number, void* buffer, DWORD size, DWORD* got,
                   DWORD* needed) noexcept {
    if (DWORD code = FaultDue("ReadEventLogW")) return Fail(code, FALSE);
    const HandleRef<EventLog> object(log);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    constexpr DWORD Ways = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_SEEK_READ;
    constexpr DWORD Directions = EVENTLOG_FORWARDS_READ | EVENTLOG_BACKWARDS_READ;
    const bool oneOfEach = (flags & Ways) != 0 && (flags & Ways) != Ways && (flags & Directions) != 0 &&
                           (flags & Directions) != Directions && !(flags & ~(Ways | Directions));
    if (!oneOfEach || !buffer || !got || !needed) return Fail(ERROR_INVALID_PARAMETER, FALSE);
    const DWORD code = WithMemory(
        [&] { return object->Read(flags, number, static_cast<char*>(buffer), size, *got, *needed); });
    return code ? Fail(code, FALSE) : TRUE;
}

BOOL ClearEventLogW(HANDLE log, const wchar_t* backup) noexcept {
    if (DWORD code = FaultDue("ClearEventLogW")) return Fail(code, FALSE);
    const HandleRef<EventLog> object(log);
    if (!object) return Fail(ERROR_INVALID_HANDLE, FALSE);
    std::optional<NativePath> path;
    if (backup) path.emplace(backup);
    if (path && path->Code()) return Fail(path->Code(), FALSE);
    const DWORD code = WithMemory([&] { return object->Clear(path ? path->c_str() : nullptr); });
    return code ? Fail(code, FALSE) : TRUE;
}

}  // namespace Quellan::Platform
