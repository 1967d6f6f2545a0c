// The message compiler: reads a message file (.mc, UTF-8) and writes its message table, byte for byte as
// windmc writes it, a C++ source that carries the tables inside a Linux module, and a header with the
// identifiers. What it reads is the part of the format described in docs/formats/message-table.md; anything
// else is an error, told with its line.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int FailureExitCode = 2;

constexpr std::uint32_t MaxCode = 0xFFFF;
constexpr std::uint32_t MaxFacility = 0xFFF;
constexpr std::uint32_t MaxSeverity = 3;
constexpr std::uint32_t MaxLanguage = 0xFFFF;
constexpr unsigned SeverityShift = 30;
constexpr unsigned FacilityShift = 16;

constexpr std::size_t BlockSize = 12;
constexpr std::size_t EntryHeaderSize = 4;
constexpr std::size_t MaxEntrySize = 0xFFFC;
constexpr std::uint16_t EntryIsUtf16 = 1;

constexpr char NoteName[] = "TQLib";
constexpr std::uint32_t MessagesNote = 1;
constexpr std::uint32_t StringsNote = 2;
constexpr std::uint32_t ContainerVersion = 1;
constexpr std::size_t ContainerHeaderSize = 8;
constexpr std::size_t LanguageEntrySize = 12;

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Symbol {
    std::string name;
    std::uint32_t value;
};

struct Message {
    std::uint32_t id;
    std::map<std::string, std::u16string> texts;  // by language
};

struct MessageFile {
    std::map<std::string, std::uint32_t> languages{{"English", 0x409}};
    std::vector<Symbol> symbols;
    std::vector<Message> messages;
};

constexpr std::size_t Padded(std::size_t size) {
    return (size + 3) / 4 * 4;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure(path + ": cannot be read");
    return {std::istreambuf_iterator<char>(in), {}};
}

void WriteWhole(const std::string& path, std::string_view contents) {
    std::ofstream out(path, std::ios::binary);
    out << contents;
    out.close();
    if (!out) throw Failure(path + ": cannot be written");
}

// The code point at `i`, which moves behind it; none where the text is not UTF-8.
std::optional<std::uint32_t> CodePoint(std::string_view text, std::size_t& i) {
    const auto byte = [&](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0u;
    };
    const std::uint32_t lead = byte(i++);
    if (lead < 0x80) return lead;
    const unsigned following = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    std::uint32_t code = lead & (0x3Fu >> following);
    for (unsigned k = 0; k < following; ++k, ++i) {
        if ((byte(i) & 0xC0) != 0x80) return std::nullopt;
        code = code << 6 | (byte(i) & 0x3F);
    }
    constexpr std::uint32_t Least[] = {0, 0x80, 0x800, 0x10000};
    if (lead < 0xC0 || lead > 0xF4 || code < Least[following] || code > 0x10FFFF ||
        (code >= 0xD800 && code < 0xE000))
        return std::nullopt;
    return code;
}

bool AppendUtf16(std::string_view utf8, std::u16string& text) {
    for (std::size_t i = 0; i < utf8.size();) {
        const std::optional<std::uint32_t> code = CodePoint(utf8, i);
        if (!code) return false;
        if (*code > 0xFFFF) {
            text += static_cast<char16_t>(0xD800 + ((*code - 0x10000) >> 10));
            text += static_cast<char16_t>(0xDC00 + ((*code - 0x10000) & 0x3FF));
        } else {
            text += static_cast<char16_t>(*code);
        }
    }
    return true;
}

class Parser {
  public:
    explicit Parser(const std::string& path) : m_path(path), m_text(ReadWhole(path)) { ReadLine(); }

    MessageFile Parse() {
        while (SkipToWord()) {
            const std::string key = Key();
            if (key == "SeverityNames")
                Names(key, MaxSeverity, m_severities);
            else if (key == "FacilityNames")
                Names(key, MaxFacility, m_facilities);
            else if (key == "LanguageNames")
                Names(key, MaxLanguage, m_file.languages);
            else if (key == "MessageIdTypedef")
                Word("a type");
            else if (key == "MessageId")
                OneMessage();
            else
                Fail("unknown keyword " + key);
        }
        if (m_file.messages.empty()) Fail("there are no messages");
        return std::move(m_file);
    }

  private:
    [[noreturn]] void Fail(const std::string& what) const {
        throw Failure(m_path + ":" + std::to_string(m_lineNumber) + ": " + what);
    }

    bool ReadLine() {
        if (m_next >= m_text.size()) return false;
        const std::size_t end = std::min(m_text.find('\n', m_next), m_text.size());
        m_line = std::string_view(m_text).substr(m_next, end - m_next);
        if (m_line.ends_with('\r')) m_line.remove_suffix(1);
        m_next = end + 1;
        ++m_lineNumber;
        m_at = 0;
        return true;
    }

    void SkipBlanks() { m_at = std::min(m_line.find_first_not_of(" \t", m_at), m_line.size()); }
    bool AtLineEnd() {
        SkipBlanks();
        return m_at == m_line.size();
    }

    // Moves over blanks, empty lines and comments; false at the end of the file.
    bool SkipToWord() {
        while (AtLineEnd() || m_line.starts_with(';'))
            if (!ReadLine()) return false;
        return true;
    }

    bool Accept(char c) {
        if (AtLineEnd() || m_line[m_at] != c) return false;
        ++m_at;
        return true;
    }

    std::string Word(const char* what) {
        if (AtLineEnd()) Fail(std::string("expected ") + what);
        const std::size_t end = std::min(m_line.find_first_of(" \t=():+", m_at), m_line.size());
        if (end == m_at) Fail(std::string("expected ") + what);
        std::string word(m_line.substr(m_at, end - m_at));
        m_at = end;
        return word;
    }

    std::string Key() {
        std::string key = Word("a keyword");
        if (!Accept('=')) Fail("expected = after " + key);
        return key;
    }

    std::uint32_t Number(std::uint32_t most) {
        const std::string word = Word("a number");
        const bool hex = word.starts_with("0x") || word.starts_with("0X");
        const char* const first = word.data() + (hex ? 2 : 0);
        const char* const last = word.data() + word.size();
        std::uint32_t value = 0;
        const auto [end, error] = std::from_chars(first, last, value, hex ? 16 : 10);
        if (error != std::errc{} || end != last) Fail(word + " is not a number");
        if (value > most) Fail(word + " is too large");
        return value;
    }

    // ( NAME = number [ : SYMBOL ] ... ); the symbol of a language is its file's name, which only windmc
    // needs.
    void Names(const std::string& key, std::uint32_t most, std::map<std::string, std::uint32_t>& names) {
        if (!SkipToWord() || !Accept('(')) Fail("expected ( after " + key);
        for (;;) {
            if (!SkipToWord()) Fail(key + " lacks its )");
            if (Accept(')')) return;
            const std::string name = Key();
            const std::uint32_t value = Number(most);
            names[name] = value;
            if (!Accept(':')) continue;
            std::string symbol = Word("a name");
            if (key != "LanguageNames") m_file.symbols.push_back({std::move(symbol), value});
        }
    }

    std::uint32_t ValueOf(const char* what, const std::map<std::string, std::uint32_t>& names) {
        const std::string name = Word("a name");
        const auto known = names.find(name);
        if (known == names.end()) Fail(std::string("unknown ") + what + " " + name);
        return known->second;
    }

    // Without a number a message follows the one before it, whatever their facilities.
    std::uint32_t Code() {
        if (AtLineEnd()) return m_lastCode + 1;
        return Accept('+') ? m_lastCode + Number(MaxCode) : Number(MaxCode);
    }

    void OneMessage() {
        m_lastCode = Code();
        if (m_lastCode > MaxCode) Fail("the message's number is too large");
        std::uint32_t severity = 0;
        std::uint32_t facility = 0;
        std::string symbol;
        Message message{};
        for (;;) {
            if (!SkipToWord()) break;
            const std::size_t start = m_at;
            const std::string key = Key();
            if (key == "Language") {
                Text(message);
                continue;
            }
            if (!message.texts.empty()) {
                m_at = start;
                break;
            }
            if (key == "Severity")
                severity = ValueOf("severity", m_severities);
            else if (key == "Facility")
                facility = ValueOf("facility", m_facilities);
            else if (key == "SymbolicName")
                symbol = Word("a name");
            else
                Fail("unknown keyword " + key + " in a message");
        }
        if (message.texts.empty()) Fail("the message has no text");
        message.id = severity << SeverityShift | facility << FacilityShift | m_lastCode;
        if (std::ranges::find(m_file.messages, message.id, &Message::id) != m_file.messages.end())
            Fail("the message's number is used twice");
        if (!symbol.empty()) m_file.symbols.push_back({std::move(symbol), message.id});
        m_file.messages.push_back(std::move(message));
    }

    void Text(Message& message) {
        const std::string language = Word("a language");
        if (!m_file.languages.contains(language)) Fail("unknown language " + language);
        if (message.texts.contains(language)) Fail("the message has two texts in " + language);
        if (!AtLineEnd()) Fail("the text must begin on a line of its own");
        std::u16string text;
        for (;;) {
            if (!ReadLine()) Fail("the message lacks the line with a single dot at its end");
            if (m_line == ".") break;
            if (!AppendUtf16(m_line, text)) Fail("the text is not UTF-8");
            text += u"\r\n";
        }
        if (text.empty()) Fail("the message's text is empty");
        if (Padded(EntryHeaderSize + 2 * (text.size() + 1)) > MaxEntrySize)
            Fail("the message's text is too long");
        message.texts.emplace(language, std::move(text));
        if (!ReadLine()) m_line = {}, m_at = 0;
    }

    std::string m_path;
    std::string m_text;
    std::string_view m_line;
    std::size_t m_next = 0;
    std::size_t m_at = 0;
    int m_lineNumber = 0;
    std::uint32_t m_lastCode = 0;
    std::map<std::string, std::uint32_t> m_severities{
        {"Success", 0}, {"Informational", 1}, {"Warning", 2}, {"Error", 3}};
    std::map<std::string, std::uint32_t> m_facilities{{"System", 0xFF}, {"Application", 0xFFF}};
    MessageFile m_file;
};

// Reads the string tables of a resource script: "#define NAME number" lines and
// STRINGTABLE BEGIN number "text" ... END, with // comments, "" for a quotation mark and \\n, \\r, \\t,
// \\\\ in a text. Other lines that begin with # are left to the resource compiler of the platform.
class StringTableParser {
  public:
    explicit StringTableParser(const std::string& path) : m_path(path), m_text(ReadWhole(path)) {}

    // The strings as messages in `language`.
    MessageFile Parse(const std::string& language, std::uint32_t languageId) {
        m_file.languages[language] = languageId;
        for (std::string word = Token(); !word.empty(); word = Token()) {
            if (word != "STRINGTABLE") Fail("expected STRINGTABLE, not " + word);
            if (const std::string begin = Token(); begin != "BEGIN" && begin != "{") Fail("expected BEGIN");
            for (word = Token(); word != "END" && word != "}"; word = Token())
                OneString(word, language);
        }
        if (m_file.messages.empty()) Fail("there are no strings");
        return std::move(m_file);
    }

  private:
    [[noreturn]] void Fail(const std::string& what) const {
        const auto line =
            1 + std::count(m_text.begin(), m_text.begin() + static_cast<std::ptrdiff_t>(m_at), '\n');
        throw Failure(m_path + ":" + std::to_string(line) + ": " + what);
    }

    void OneString(const std::string& word, const std::string& language) {
        const auto defined = m_defined.find(word);
        const std::uint32_t id = Number(defined == m_defined.end() ? word : defined->second);
        std::string quoted = Token();
        if (quoted == ",") quoted = Token();
        if (!quoted.starts_with('"')) Fail("expected a text in quotation marks");
        std::u16string text;
        if (!AppendUtf16(std::string_view(quoted).substr(1), text)) Fail("the text is not UTF-8");
        if (std::ranges::find(m_file.messages, id, &Message::id) != m_file.messages.end())
            Fail("the string's number is used twice");
        m_file.messages.push_back({id, {{language, std::move(text)}}});
    }

    std::uint32_t Number(const std::string& word) const {
        const bool hex = word.starts_with("0x") || word.starts_with("0X");
        std::uint32_t value = 0;
        const auto [end, error] =
            std::from_chars(word.data() + (hex ? 2 : 0), word.data() + word.size(), value, hex ? 16 : 10);
        if (error != std::errc{} || end != word.data() + word.size() || value > MaxCode)
            Fail(word + " is not the number of a string");
        return value;
    }

    std::string Line() {
        const std::size_t end = std::min(m_text.find('\n', m_at), m_text.size());
        std::string line = m_text.substr(m_at, end - m_at);
        m_at = end;
        return line;
    }

    void Directive() {
        std::istringstream words(Line());
        std::string directive, name, value;
        if (words >> directive >> name >> value && directive == "#define") m_defined[name] = value;
    }

    // A word, a single sign, or an opening quotation mark with the text behind it; empty at the end of the
    // file.
    std::string Token() {
        for (;;) {
            m_at = std::min(m_text.find_first_not_of(" \t\r\n", m_at), m_text.size());
            if (m_at == m_text.size()) return {};
            if (m_text[m_at] == '#')
                Directive();
            else if (m_text.compare(m_at, 2, "//") == 0)
                Line();
            else
                break;
        }
        if (m_text[m_at] == '"') return Quoted();
        const std::size_t end = std::min(m_text.find_first_of(" \t\r\n,{}\"", m_at), m_text.size());
        std::string token = m_text.substr(m_at, std::max<std::size_t>(end - m_at, 1));
        m_at += token.size();
        return token;
    }

    std::string Quoted() {
        std::string text = "\"";
        for (++m_at; m_at < m_text.size() && m_text[m_at] != '\n'; ++m_at) {
            if (m_text[m_at] == '"') {
                ++m_at;
                if (m_text.compare(m_at, 1, "\"") != 0) return text;
            } else if (m_text[m_at] == '\\') {
                const std::size_t escape = std::string_view("nrt\\").find(m_text[++m_at]);
                if (escape == std::string_view::npos) Fail("unknown escape in a text");
                text += "\n\r\t\\"[escape];
                continue;
            }
            text += m_text[m_at];
        }
        Fail("the text lacks its closing quotation mark");
    }

    std::string m_path;
    std::string m_text;
    std::size_t m_at = 0;
    std::map<std::string, std::string> m_defined;
    MessageFile m_file;
};

void AppendNumber(std::string& bytes, std::uint32_t value, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> (8 * i) & 0xFF);
}

// The table of one language: messages sorted by number, each run of successive numbers one block.
std::string Table(const MessageFile& file, const std::string& language) {
    std::map<std::uint32_t, const std::u16string*> texts;
    for (const Message& message : file.messages)
        if (const auto text = message.texts.find(language); text != message.texts.end())
            texts[message.id] = &text->second;
    if (texts.empty()) throw Failure("no message has a text in " + language);

    struct Block {
        std::uint32_t first, last, offset;
    };
    std::vector<Block> blocks;
    std::string entries;
    for (const auto& [id, text] : texts) {
        if (!blocks.empty() && blocks.back().last + 1 == id)
            blocks.back().last = id;
        else
            blocks.push_back({id, id, static_cast<std::uint32_t>(entries.size())});
        const std::size_t size = Padded(EntryHeaderSize + 2 * (text->size() + 1));
        const std::size_t end = entries.size() + size;
        AppendNumber(entries, static_cast<std::uint32_t>(size), 2);
        AppendNumber(entries, EntryIsUtf16, 2);
        for (const char16_t unit : *text)
            AppendNumber(entries, unit, 2);
        entries.resize(end, '\0');
    }
    std::string table;
    const std::uint32_t firstEntry = static_cast<std::uint32_t>(4 + blocks.size() * BlockSize);
    AppendNumber(table, static_cast<std::uint32_t>(blocks.size()), 4);
    for (const Block& block : blocks) {
        AppendNumber(table, block.first, 4);
        AppendNumber(table, block.last, 4);
        AppendNumber(table, firstEntry + block.offset, 4);
    }
    return table + entries;
}

// What the module carries in its note: the tables with their languages before them.
std::string Container(const MessageFile& file, const std::vector<std::string>& languages) {
    std::string index;
    std::string tables;
    const std::size_t start = ContainerHeaderSize + languages.size() * LanguageEntrySize;
    AppendNumber(index, ContainerVersion, 4);
    AppendNumber(index, static_cast<std::uint32_t>(languages.size()), 4);
    for (const std::string& language : languages) {
        const std::string table = Table(file, language);
        AppendNumber(index, file.languages.at(language), 4);
        AppendNumber(index, static_cast<std::uint32_t>(start + tables.size()), 4);
        AppendNumber(index, static_cast<std::uint32_t>(table.size()), 4);
        tables += table;
    }
    return index + tables;
}

std::string Hex(std::uint32_t value) {
    char digits[8];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), value, 16).ptr;
    return "0x" + std::string(digits, end);
}

// One note of the module, as assembler text.
std::string Note(std::uint32_t type, const std::string& container) {
    constexpr std::size_t BytesInLine = 16;
    std::string source = "    .balign 4\n    .long " + std::to_string(sizeof(NoteName)) + ", " +
                         std::to_string(container.size()) + ", " + std::to_string(type);
    source += "\n    .asciz \"" + std::string(NoteName) + "\"\n    .balign 4\n";
    for (std::size_t at = 0; at < container.size(); ++at) {
        source += at % BytesInLine == 0 ? "    .byte " : ",";
        source += std::to_string(static_cast<unsigned char>(container[at]));
        if (at % BytesInLine == BytesInLine - 1 || at + 1 == container.size()) source += '\n';
    }
    return source;
}

std::string ModuleSource(const std::string& notes) {
    return "// Made by tqmc: the tables of this module.\nasm(R\"(\n    .pushsection .note.tqlib, \"a\", "
           "%note\n" +
           notes + "    .balign 4\n    .popsection\n)\");\n";
}

std::string Header(const MessageFile& file) {
    std::string header =
        "// Made by tqmc: the identifiers of a message file.\n#pragma once\n\n#include <cstdint>\n\n";
    for (const Symbol& symbol : file.symbols)
        header += "inline constexpr std::uint32_t " + symbol.name + " = " + Hex(symbol.value) + ";\n";
    return header;
}

struct Options {
    std::string file;
    std::vector<std::string> languages;
    std::optional<std::string> strings, table, module, header;
};

constexpr const char* Usage =
    "usage: tqmc FILE.mc --language NAME... [--strings FILE.rc] [--table OUT.bin] [--module OUT.cpp] "
    "[--header OUT.h]\n"
    "  --language NAME  take the texts of this language; several may be given\n"
    "  --strings FILE   add the string tables of that resource script, in the one language, to the module\n"
    "  --table FILE     write the message table of the one language\n"
    "  --module FILE    write the source of a Linux module with the tables of all languages\n"
    "  --header FILE    write the identifiers";

Options ReadOptions(const std::vector<std::string>& arguments) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (!argument.starts_with("--")) {
            if (!options.file.empty()) throw Failure(Usage);
            options.file = argument;
            continue;
        }
        if (i + 1 == arguments.size()) throw Failure(Usage);
        const std::string& value = arguments[++i];
        if (argument == "--language")
            options.languages.push_back(value);
        else if (argument == "--strings")
            options.strings = value;
        else if (argument == "--table")
            options.table = value;
        else if (argument == "--module")
            options.module = value;
        else if (argument == "--header")
            options.header = value;
        else
            throw Failure(Usage);
    }
    const bool ambiguous = (options.table || options.strings) && options.languages.size() != 1;
    if (options.file.empty() || options.languages.empty() || ambiguous) throw Failure(Usage);
    return options;
}

void Run(const Options& options) {
    const MessageFile file = Parser(options.file).Parse();
    for (const std::string& language : options.languages)
        if (!file.languages.contains(language))
            throw Failure(options.file + ": unknown language " + language);
    std::string notes = Note(MessagesNote, Container(file, options.languages));
    if (options.strings) {
        const std::string& language = options.languages.front();
        const MessageFile strings =
            StringTableParser(*options.strings).Parse(language, file.languages.at(language));
        notes += Note(StringsNote, Container(strings, options.languages));
    }
    if (options.table) WriteWhole(*options.table, Table(file, options.languages.front()));
    if (options.module) WriteWhole(*options.module, ModuleSource(notes));
    if (options.header) WriteWhole(*options.header, Header(file));
}

}  // namespace

int main(int argc, char** argv) try {
    Run(ReadOptions({argv + 1, argv + argc}));
    return 0;
} catch (const std::exception& failure) {
    std::cerr << failure.what() << '\n';
    return FailureExitCode;
}
