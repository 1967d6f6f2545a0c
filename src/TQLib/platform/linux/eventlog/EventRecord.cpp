#include "TQLib/platform/linux/eventlog/EventRecord.h"

#include "TQLib/platform/Utf.h"
#include "TQLib/platform/linux/base/Wide.h"
#include "TQLib/platform/linux/eventlog/EventLog.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <limits>

namespace Quellan::Platform {

namespace {

struct TypeName {
    WORD type;
    std::string_view name;
};

constexpr TypeName TypeNames[] = {
    {EVENTLOG_SUCCESS, "success"},
    {EVENTLOG_ERROR_TYPE, "error"},
    {EVENTLOG_WARNING_TYPE, "warning"},
    {EVENTLOG_INFORMATION_TYPE, "information"},
    {EVENTLOG_AUDIT_SUCCESS, "audit success"},
    {EVENTLOG_AUDIT_FAILURE, "audit failure"},
};

constexpr std::string_view HexDigits = "0123456789abcdef";

void AppendText(std::string& line, std::string_view text) {
    line += '"';
    for (char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\') {
            line += '\\';
            line += character;
        } else if (byte < 0x20 || byte == 0x7F) {
            line += "\\u00";
            line += HexDigits[byte >> 4];
            line += HexDigits[byte & 0xF];
        } else {
            line += character;
        }
    }
    line += '"';
}

std::string FormatTime(std::int64_t milliseconds) {
    const std::time_t seconds = milliseconds / 1000;
    tm fields;
    gmtime_r(&seconds, &fields);
    char text[64];
    const int size = std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                                   fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                                   fields.tm_min, fields.tm_sec, static_cast<int>(milliseconds % 1000));
    return std::string(text, static_cast<std::size_t>(size));
}

std::optional<std::int64_t> ParseTime(std::string_view text) {
    constexpr std::string_view Form = "0000-00-00T00:00:00.000Z";
    if (text.size() != Form.size()) return std::nullopt;
    std::array<int, 7> numbers{};  // year to milliseconds
    auto number = numbers.begin();
    for (std::size_t i = 0; i < Form.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (Form[i] == '0' ? !digit : text[i] != Form[i]) return std::nullopt;
        if (digit)
            *number = *number * 10 + (text[i] - '0');
        else if (i + 1 < Form.size())
            ++number;
    }
    tm fields{};
    fields.tm_year = numbers[0] - 1900;
    fields.tm_mon = numbers[1] - 1;
    fields.tm_mday = numbers[2];
    fields.tm_hour = numbers[3];
    fields.tm_min = numbers[4];
    fields.tm_sec = numbers[5];
    return std::int64_t{timegm(&fields)} * 1000 + numbers[6];
}

// Reads a line from left to right. After the first thing that does not fit it reads nothing more.
class LineReader {
  public:
    explicit LineReader(std::string_view line) : m_rest(line) {}

    bool Failed() const noexcept { return m_failed; }
    bool AtEnd() const noexcept { return m_rest.empty(); }

    bool Take(char character) noexcept {
        if (m_failed || !m_rest.starts_with(character)) return false;
        m_rest.remove_prefix(1);
        return true;
    }

    void Expect(char character) noexcept { m_failed |= !Take(character); }

    std::string Text() {
        std::string text;
        Expect('"');
        while (!m_failed && !Take('"')) {
            if (m_rest.empty() || static_cast<unsigned char>(m_rest.front()) < 0x20)
                m_failed = true;
            else if (Take('\\'))
                Escape(text);
            else
                text += Next();
        }
        return text;
    }

    std::vector<std::string> Texts() {
        std::vector<std::string> texts;
        Expect('[');
        if (Take(']')) return texts;
        do
            texts.push_back(Text());
        while (Take(','));
        Expect(']');
        return texts;
    }

    template <class Number>
    Number Value() noexcept {
        Number value = 0;
        const auto [end, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), value);
        if (m_failed || error != std::errc())
            m_failed = true;
        else
            m_rest.remove_prefix(static_cast<std::size_t>(end - m_rest.data()));
        return value;
    }

    // A value of any of the three forms.
    void Skip() {
        if (m_rest.starts_with('"'))
            Text();
        else if (m_rest.starts_with('['))
            Texts();
        else
            Value<std::int64_t>();
    }

    void Fail() noexcept { m_failed = true; }

  private:
    char Next() noexcept {
        const char character = m_rest.front();
        m_rest.remove_prefix(1);
        return character;
    }

    // The numbered form is only written, and only read, for characters that have no sign of their own.
    void Escape(std::string& text) {
        unsigned code = 0;
        if (Take('"')) {
            text += '"';
        } else if (Take('\\')) {
            text += '\\';
        } else if (Take('u') && m_rest.size() >= 4 &&
                   std::from_chars(m_rest.data(), m_rest.data() + 4, code, 16).ptr == m_rest.data() + 4 &&
                   code > 0 && code < 0x80) {
            text += static_cast<char>(code);
            m_rest.remove_prefix(4);
        } else {
            m_failed = true;
        }
    }

    std::string_view m_rest;
    bool m_failed = false;
};

WORD ParseType(LineReader& reader) {
    const std::string name = reader.Text();
    const auto* found = std::ranges::find(TypeNames, name, &TypeName::name);
    if (found != std::end(TypeNames)) return found->type;
    reader.Fail();
    return 0;
}

std::string ParseData(LineReader& reader) {
    const std::string digits = reader.Text();
    std::string data(digits.size() / 2, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        const std::size_t high = HexDigits.find(digits[2 * i]);
        const std::size_t low = HexDigits.find(digits[2 * i + 1]);
        if (high == HexDigits.npos || low == HexDigits.npos) reader.Fail();
        data[i] = static_cast<char>(high << 4 | low);
    }
    if (digits.size() % 2 != 0) reader.Fail();
    return data;
}

// A member of a line: how it is written and how it is read. The order is the order in the line.
struct Member {
    std::string_view name;
    void (*write)(std::string& line, const EventRecord& record);
    void (*read)(LineReader& reader, EventRecord& record);
};

constexpr Member Members[] = {
    {"record", [](std::string& line, const EventRecord& record) { line += std::to_string(record.number); },
     [](LineReader& reader, EventRecord& record) { record.number = reader.Value<DWORD>(); }},
    {"time", [](std::string& line, const EventRecord& record) { AppendText(line, FormatTime(record.time)); },
     [](LineReader& reader, EventRecord& record) {
         const auto time = ParseTime(reader.Text());
         if (!time) reader.Fail();
         record.time = time.value_or(0);
     }},
    {"source", [](std::string& line, const EventRecord& record) { AppendText(line, record.source); },
     [](LineReader& reader, EventRecord& record) { record.source = reader.Text(); }},
    {"computer", [](std::string& line, const EventRecord& record) { AppendText(line, record.computer); },
     [](LineReader& reader, EventRecord& record) { record.computer = reader.Text(); }},
    {"id", [](std::string& line, const EventRecord& record) { line += std::to_string(record.id); },
     [](LineReader& reader, EventRecord& record) { record.id = reader.Value<DWORD>(); }},
    {"type",
     [](std::string& line, const EventRecord& record) {
         AppendText(line, std::ranges::find(TypeNames, record.type, &TypeName::type)->name);
     },
     [](LineReader& reader, EventRecord& record) { record.type = ParseType(reader); }},
    {"category",
     [](std::string& line, const EventRecord& record) { line += std::to_string(record.category); },
     [](LineReader& reader, EventRecord& record) { record.category = reader.Value<WORD>(); }},
    {"strings",
     [](std::string& line, const EventRecord& record) {
         line += '[';
         for (const std::string& text : record.strings) {
             if (&text != &record.strings.front()) line += ',';
             AppendText(line, text);
         }
         line += ']';
     },
     [](LineReader& reader, EventRecord& record) { record.strings = reader.Texts(); }},
    {"data",
     [](std::string& line, const EventRecord& record) {
         line += '"';
         for (char character : record.data) {
             line += HexDigits[static_cast<unsigned char>(character) >> 4];
             line += HexDigits[static_cast<unsigned char>(character) & 0xF];
         }
         line += '"';
     },
     [](LineReader& reader, EventRecord& record) { record.data = ParseData(reader); }},
    {"process", [](std::string& line, const EventRecord& record) { line += std::to_string(record.process); },
     [](LineReader& reader, EventRecord& record) { record.process = reader.Value<DWORD>(); }},
    {"user", [](std::string& line, const EventRecord& record) { line += std::to_string(record.user); },
     [](LineReader& reader, EventRecord& record) { record.user = reader.Value<DWORD>(); }},
};

}  // namespace

bool IsEventType(WORD type) noexcept {
    return std::ranges::find(TypeNames, type, &TypeName::type) != std::end(TypeNames);
}

std::string FormatEvent(const EventRecord& record) {
    std::string line;
    for (const Member& member : Members) {
        line += line.empty() ? '{' : ',';
        AppendText(line, member.name);
        line += ':';
        member.write(line, record);
    }
    line += '}';
    return line;
}

std::optional<EventRecord> ParseEvent(std::string_view line) {
    EventRecord record;
    std::array<bool, std::size(Members)> seen{};
    LineReader reader(line);
    reader.Expect('{');
    do {
        const std::string name = reader.Text();
        reader.Expect(':');
        const auto* member = std::ranges::find(Members, name, &Member::name);
        if (member == std::end(Members)) {
            reader.Skip();
        } else {
            member->read(reader, record);
            seen[static_cast<std::size_t>(member - Members)] = true;
        }
    } while (reader.Take(','));
    reader.Expect('}');
    const bool whole = !reader.Failed() && reader.AtEnd() && std::ranges::count(seen, false) == 0;
    return whole ? std::optional(std::move(record)) : std::nullopt;
}

}  // namespace Quellan::Platform
