#include "TQLib/log/internal/LogRecord.h"

#include "TQLib/text/TQFormat.h"

#include <algorithm>
#include <cstring>

namespace Quellan::Corvel {

namespace {

// What would end the head's line or move a terminal's cursor.
constexpr bool IsControl(wchar_t c) noexcept {
    const auto code = static_cast<unsigned>(c);
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 || code == 0x2029;
}

// Text in a room that is large enough.
class Putter {
  public:
    explicit Putter(char* room) noexcept : m_begin(room), m_end(room) {}

    Putter& operator<<(std::string_view text) noexcept {
        std::memcpy(m_end, text.data(), text.size());
        m_end += text.size();
        return *this;
    }
    Putter& operator<<(char c) noexcept {
        *m_end++ = c;
        return *this;
    }
    std::size_t Size() const noexcept { return static_cast<std::size_t>(m_end - m_begin); }

  private:
    char* m_begin;
    char* m_end;
};

}  // namespace

char LogMark(TQLogLevel level) noexcept {
    // The lower-case ones belong to levels of their own.
    constexpr std::string_view Marks = "RsLioDASTIWEX#";
    const auto index = static_cast<std::size_t>(level);
    return index < Marks.size() ? Marks[index] : '?';
}

// Names come from anywhere, and one with a line break would begin a record of its own.
void AppendInOneLine(AnsiText& text, std::wstring_view name) {
    while (!name.empty()) {
        const auto end = std::ranges::find_if(name, IsControl);
        AppendAnsi(text, {name.begin(), end});
        name = {end, name.end()};
        for (; !name.empty() && IsControl(name.front()); name.remove_prefix(1)) {
            char escaped[8];
            text.Append({escaped, FormatTo(escaped, "\\x%02X", static_cast<unsigned>(name.front()))});
        }
    }
}

std::string InOneLine(std::wstring_view name) {
    AnsiText text;
    AppendInOneLine(text, name);
    return std::string(text.View());
}

void AppendLogRecord(AnsiText& text, const LogRecord& record) {
    // A CR-LF of the message ends up before eight blanks, an LF before four: both are replaced by a line feed
    // with four blanks, and then the line feeds that came from the first once more. Readers of old logs rely
    // on it. What is a CR-LF only then loses its CR as well.
    static constexpr LineBreaks Indented{"\r\n    ", "\r\n        ", 2};
    constexpr std::size_t MostOfRest = 48;
    const std::string_view user = record.user.value_or(std::string_view());
    const unsigned ms = record.millisecond;
    const auto digit = [](unsigned number) { return static_cast<char>('0' + number); };

    Putter put(text.Room(record.time.size() + record.writer.size() + user.size() + MostOfRest));
    put << LogMark(record.level) << ' ' << record.time << '.';
    put << digit(ms / 100) << digit(ms / 10 % 10) << digit(ms % 10) << ' ' << record.writer;
    // Without a user the source takes the second pair of brackets; with a user alone that pair stays empty.
    if (record.source || record.user) put << " -- [";
    if (record.source) {
        text.Commit(put.Size());
        AppendInOneLine(text, *record.source);
        put = Putter(text.Room(user.size() + MostOfRest));
    }
    if (record.user) put << "] -- [" << user;
    if (record.source || record.user) put << ']';
    put << Indented.ofLf;
    text.Commit(put.Size());
    AppendAnsi(text, record.message, Indented);
    text.Append("\r\n");
}

}  // namespace Quellan::Corvel
