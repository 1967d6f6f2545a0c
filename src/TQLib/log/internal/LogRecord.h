// How a record of a log is written. docs/formats/log-file.md describes it.
#pragma once

#include "TQLib/files/internal/AnsiLines.h"
#include "TQLib/log/TQLog.h"

#include <optional>
#include <string>
#include <string_view>

namespace Quellan::Corvel {

// Its bytes are as they stand in the file, names in one line.
struct LogRecord {
    TQLogLevel level;
    std::string_view time;
    unsigned millisecond;
    std::string_view writer;  // with its brackets
    std::optional<std::wstring_view> source;
    std::optional<std::string_view> user;
    std::wstring_view message;
};

char LogMark(TQLogLevel level) noexcept;

// A name of the head as it stands in the file. Throws as `AppendAnsi`.
void AppendInOneLine(AnsiText& text, std::wstring_view name);
std::string InOneLine(std::wstring_view name);

// The bytes of the record in the file, all of them. Throws as `AppendAnsi`.
void AppendLogRecord(AnsiText& text, const LogRecord& record);

}  // namespace Quellan::Corvel
