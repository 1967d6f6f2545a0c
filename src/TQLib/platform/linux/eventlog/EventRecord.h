// One entry of an event log and its line in the log's file.
#pragma once

#include "TQLib/platform/Types.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quellan::Platform {

// Text is UTF-8.
struct EventRecord {
    DWORD number = 0;
    std::int64_t time = 0;  // milliseconds since 1970, UTC
    std::string source;
    std::string computer;
    DWORD id = 0;
    WORD type = 0;
    WORD category = 0;
    std::vector<std::string> strings;
    std::string data;  // bytes
    DWORD process = 0;
    DWORD user = 0;
};

// Whether `type` is one that events can have.
bool IsEventType(WORD type) noexcept;

// The record as one line, without its end. May throw std::bad_alloc.
std::string FormatEvent(const EventRecord& record);

// Nothing unless the line is a whole record; members of other names are passed over. May throw
// std::bad_alloc.
std::optional<EventRecord> ParseEvent(std::string_view line);

}  // namespace Quellan::Platform
