// Text as files have it whose lines are in the system's ANSI code page.
#pragma once

#include "TQLib/text/memory/internal/ScratchText.h"

#include <string_view>

namespace Quellan::Corvel {

// Usual records fit without memory.
using AnsiText = ScratchText<char, 4096>;

// What a line break becomes in the file.
struct LineBreaks {
    std::string_view ofLf = "\r\n";
    std::string_view ofCrLf = "\r\n";
    std::size_t mostReturns = 1;  // how many before a line feed are part of its break
};

// Converts `text`. Throws `TQSysException` with the platform's code where that fails, or std::bad_alloc.
void AppendAnsi(AnsiText& out, std::wstring_view text, const LineBreaks& breaks = {});

}  // namespace Quellan::Corvel
