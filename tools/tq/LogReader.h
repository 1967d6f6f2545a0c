// Reading of log files, record by record. docs/formats/log-file.md describes them.
#pragma once

#include "TQLib/TQLib.h"
#include "TQLib/platform/Win32.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tq {

constexpr int MsInDay = 24 * 60 * 60 * 1000;
// Of a line, and of a message.
constexpr std::size_t MostKeptBytes = std::size_t{1} << 20;

struct LogLine {
    std::string text;
    ULONGLONG omitted = 0;  // bytes behind it that are not kept
};

// Lines that belong together: a record, or what can't be read as one.
struct LogEntry {
    std::size_t line = 0;  // of the file, from 1 on
    std::string first;
    std::string message;    // without its indentation, lines separated by line feeds
    ULONGLONG omitted = 0;  // bytes of either that are not kept
    bool hasMessage = false;
    bool isRecord = false;
    long long time = 0;  // milliseconds since the beginning of the file's first day; of a record
};

// Reads a file from its beginning on, in parts of some kilobytes: what has been read is forgotten, and of a
// line or message that is longer than `MostKeptBytes`, what lies beyond. The file may be written to, rolled
// over and deleted meanwhile.
class LogReader {
  public:
    // Throws `TQSysException` where the file can't be opened.
    explicit LogReader(const Quellan::Corvel::TQFileName& name);

    const Quellan::Corvel::TQFileName& Name() const { return m_name; }

    // The next entry that is complete; nothing at the end of the file, where there may be more later. With
    // `isFollowed` what stands at the end is only taken once nothing has come behind it since the call
    // before: its writer may be at it.
    std::optional<LogEntry> Next(bool isFollowed);
    // Whether the file of this name is another one by now. Once the rest of this one has been read,
    // `TakeNewFile` goes on with that.
    bool FindNewFile();
    void TakeNewFile();

  private:
    // Nothing at the end.
    std::optional<LogLine> NextLine(bool isFollowed);
    bool ReadMore();
    LogEntry TakeOpen();
    void Place(LogEntry& entry, int msOfDay);

    Quellan::Corvel::TQFileName m_name;
    Quellan::Corvel::TQUniqueHandle<Quellan::Corvel::_TQFileHandleClose> m_file;
    std::string m_begin;  // the file's first bytes, by which it is known
    ULONGLONG m_read = 0;
    std::string m_buffer;  // read and not yet taken, from m_at on
    std::size_t m_at = 0;
    std::size_t m_line = 0;
    LogLine m_begun;                 // a line whose end is still to come
    std::optional<LogLine> m_ahead;  // a line that belongs to the next entry
    std::optional<LogEntry> m_open;  // an entry that may have more lines
    ULONGLONG m_quietAt = 0;         // what had been read when its end was seen
    Quellan::Corvel::TQUniqueHandle<Quellan::Corvel::_TQFileHandleClose> m_newFile;
    long long m_latest = 0;
};

}  // namespace tq
