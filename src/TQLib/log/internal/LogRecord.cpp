#include "TQLib/log/internal/LogRecord.h"

#include "TQLib/platform/Platform.h"
#include "TQLib/text/TQFormat.h"

#include <algorithm>
#include <iterator>

namespace Quellan::Corvel {

namespace {

template <class... Args>
void AppendFormat(LogText& text, TQFormatText<wchar_t, std::type_identity_t<Args>...> format,
                  const Args&... args) {
    std::size_t length = FormatTo(std::span(text.Room(0), text.RoomLeft()), format, args...);
    if (length >= text.RoomLeft()) {
        wchar_t* const room = text.Room(length + 1);
        length = FormatTo(std::span(room, length + 1), format, args...);
    }
    text.Commit(length);
}

// What would end the head's line or move a terminal's cursor.
constexpr bool IsControl(wchar_t c) noexcept {
    const auto code = static_cast<unsigned>(c);
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 || code == 0x2029;
}

// A text of the head: names come from anywhere, and one with a line break would begin a record of its own.
// Valid as long as both arguments are.
std::wstring_view InOneLine(std::wstring_view text, std::wstring& room) {
    if (std::ranges::none_of(text, IsControl)) return text;
    for (const wchar_t c : text) {
        wchar_t escaped[8];
        if (IsControl(c))
            room.append(escaped, FormatTo(escaped, L"\\x%02X", static_cast<unsigned>(c)));
        else
            room += c;
    }
    return room;
}

// A CR-LF of the message ends up before eight blanks, an LF before four: both are replaced by a line feed
// with four blanks, and then the line feeds that came from the first once more. Readers of old logs rely on
// it.
void AppendIndented(LogText& text, std::wstring_view message) {
    constexpr std::wstring_view AfterLf = L"\n    ";
    constexpr std::wstring_view AfterCrLf = L"\n        ";
    for (;;) {
        const std::size_t end = std::min(message.find(L'\n'), message.size());
        std::wstring_view line = message.substr(0, end);
        const bool isLast = end == message.size();
        const bool hasReturn = !isLast && line.ends_with(L'\r');
        if (hasReturn) line.remove_suffix(1);
        text.Append(line);
        if (isLast) return;
        text.Append(hasReturn ? AfterCrLf : AfterLf);
        message.remove_prefix(end + 1);
    }
}

}  // namespace

wchar_t LogMark(TQLogLevel level) noexcept {
    // The lower-case ones belong to levels of their own.
    constexpr std::wstring_view Marks = L"RsLioDASTIWEX#";
    const auto index = static_cast<std::size_t>(level);
    return index < Marks.size() ? Marks[index] : L'?';
}

void AppendLogRecord(LogText& text, const LogRecord& record) {
    wchar_t buffer[80];
    const std::wstring_view time(
        buffer, record.time.FormatTimeTo(buffer, TQTime::Hour24NoMarkerTimeFormat, LOCALE_USER_DEFAULT));
    std::wstring rooms[4];
    AppendFormat(text, L"%c %s.%03hu [%s : %lu (%s){%lu}]", LogMark(record.level), time,
                 record.time.ToFields().millisecond, InOneLine(record.application, rooms[0]), record.process,
                 InOneLine(record.module, rooms[1]), record.thread);
    const auto inBrackets = [&](const std::optional<std::wstring_view>& name, std::wstring& room) {
        text.Append(L" -- [");
        if (name) text.Append(InOneLine(*name, room));
        text.Append(L"]");
    };
    // Without a user the source takes the second pair of brackets; with a user alone that pair stays empty.
    if (record.source || record.user) inBrackets(record.source, rooms[2]);
    if (record.user) inBrackets(record.user, rooms[3]);
    text.Append(L"\n    ");
    AppendIndented(text, record.message);
}

}  // namespace Quellan::Corvel
