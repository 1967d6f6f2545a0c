// Expansion of a message text: its inserts, escapes and line breaks, by the rules of FormatMessageW.
#pragma once

#include "TQLib/platform/Types.h"

#include <optional>
#include <string>
#include <string_view>

namespace Quellan::Platform {

inline constexpr unsigned MaxMessageInserts = 99;

// The arguments of a message, by the number of their insert.
class MessageArguments {
  public:
    virtual ~MessageArguments() = default;
    // Argument `number`, counted from 1 to `MaxMessageInserts`; none when there is no such argument.
    virtual std::optional<std::uint64_t> Get(unsigned number) = 0;
};

struct MessageLayout {
    static constexpr DWORD NoBreaks = 0xFF;

    // 0: line breaks as in the text. `NoBreaks`: they become blanks and only %n breaks a line. Between the
    // two: they become blanks, and lines are broken at blanks of the text so that none has more characters
    // than this, unless it is a single word.
    DWORD width = 0;
    // Inserts stay as they stand, and so do the escapes that keep a character from being taken for an escape,
    // so that the result can be expanded later.
    bool keepInserts = false;
    // The result's greatest number of characters.
    std::size_t limit = 0;

    bool Wraps() const noexcept { return width != 0 && width != NoBreaks; }
};

// Sets `out` to the expanded text. `arguments` may be null when there are none. Returns 0, 87
// (ERROR_INVALID_PARAMETER) for a malformed text or an insert without an argument, or 122
// (ERROR_INSUFFICIENT_BUFFER) when the result would pass the limit, however large widths and precisions are
// asked for.
TQLIB_API DWORD FormatMessageText(std::wstring_view text, const MessageLayout& layout,
                                  MessageArguments* arguments, std::wstring& out);

}  // namespace Quellan::Platform
