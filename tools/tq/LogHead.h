// The first line of a log's record.
#pragma once

#include "TQLib/platform/Win32.h"

#include <optional>
#include <string_view>

namespace tq {

// A record's first line taken apart. The texts lie in the line, in its code page.
struct LogHead {
    char mark;
    int msOfDay;
    std::string_view application;
    DWORD process;
    std::string_view module;
    DWORD thread;
    std::optional<std::string_view> source;
    std::optional<std::string_view> user;
};

// Nothing for what is no such line.
std::optional<LogHead> ParseLogHead(std::string_view line) noexcept;

}  // namespace tq
