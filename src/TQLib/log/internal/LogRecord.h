// How a record of a log is written. docs/formats/log-file.md describes it.
#pragma once

#include "TQLib/log/TQLog.h"
#include "TQLib/log/time/TQTime.h"
#include "TQLib/text/memory/internal/ScratchText.h"

#include <optional>
#include <string_view>

namespace Quellan::Corvel {

// Usual records fit without memory.
using LogText = ScratchText<wchar_t, 1024>;

struct LogRecord {
    TQLogLevel level;
    TQTime time;
    std::wstring_view application;
    DWORD process;
    std::wstring_view module;
    DWORD thread;
    std::optional<std::wstring_view> source;
    std::optional<std::wstring_view> user;
    std::wstring_view message;
};

wchar_t LogMark(TQLogLevel level) noexcept;

// Without the line feed at its end. Throws as `TQTime::FormatTimeTo` and formatting do, or std::bad_alloc.
void AppendLogRecord(LogText& text, const LogRecord& record);

}  // namespace Quellan::Corvel
